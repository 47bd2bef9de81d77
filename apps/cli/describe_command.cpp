#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "commands.h"
#include "main/default_scene.h"
#include "main/vellgrund_module.h"
#include "platform/document.h"
#include "platform/parameter_help.h"

namespace vellgrund_cli {

platform::Status StartHost(platform::Host& host, platform::CollectingConsole& console);

namespace {

using platform::ParameterDescription;
using platform::ParameterKind;
using platform::PluginInfo;

// Everything describe prints stays within a terminal of this width.
constexpr std::size_t kWidth = 100;

const char* TypeName(platform::ValueType type) {
  static const char* const names[] = {"none",  "Bool", "Int32",  "Int64",     "Float",    "Vector",      "String",
                                      "Curve", "Link", "Matrix", "FieldList", "LinkList", "SplinePoints"};
  const auto index = static_cast<std::size_t>(type);
  return index < std::size(names) ? names[index] : "?";
}

// Concatenation without `"literal" + std::string`, which g++ 12 warns about falsely
// (-Wrestrict) once inlined.
std::string Join(std::initializer_list<std::string_view> parts) {
  std::string text;
  for (const std::string_view part : parts) text.append(part);
  return text;
}

// The shortest text that reads back as the same number: 0.25, 6371, 1048576, 1e-05.
std::string NumberText(platform::Float value) {
  char text[64];
  const auto [end, error] = std::to_chars(text, text + sizeof text, value);
  return error == std::errc() ? std::string(text, end) : std::string("?");
}

// A value as a scene file would give it.
std::string ValueText(const platform::Value& value, const platform::Enumeration* enumeration) {
  switch (value.Type()) {
    case platform::ValueType::NONE:
      return "-";
    case platform::ValueType::BOOL:
      return value.ToBool(false) ? "true" : "false";
    case platform::ValueType::INT32:
    case platform::ValueType::INT64: {
      const platform::Int number = value.ToInt64(0);
      if (enumeration != nullptr)
        if (const auto name = enumeration->NameOf(number)) return *name;
      return std::to_string(number);
    }
    case platform::ValueType::FLOAT:
      return NumberText(value.ToFloat(0.0));
    case platform::ValueType::STRING:
      return std::string("\"").append(std::get<std::string>(value.Data())).append("\"");
    case platform::ValueType::VECTOR: {
      const platform::Vector& v = std::get<platform::Vector>(value.Data());
      return Join({"[", NumberText(v.x), ", ", NumberText(v.y), ", ", NumberText(v.z), "]"});
    }
    case platform::ValueType::CURVE: {
      const platform::Int32 knots = std::get<platform::SplineData>(value.Data()).GetKnotCount();
      return Join({"(", std::to_string(knots), knots == 1 ? " knot)" : " knots)"});
    }
    case platform::ValueType::FIELDLIST: {
      const std::size_t layers = std::get<platform::FieldList>(value.Data()).Layers().size();
      return layers == 0 ? std::string("(no layers)") : Join({"(", std::to_string(layers), " layers)"});
    }
    case platform::ValueType::LINK:
      return "null";
    case platform::ValueType::LINKLIST: {
      const std::size_t links = std::get<platform::NodeLinkList>(value.Data()).targets.size();
      return links == 0 ? std::string("(no links)") : Join({"(", std::to_string(links), " links)"});
    }
    case platform::ValueType::SPLINEPATH: {
      const std::size_t points = std::get<platform::SplinePath>(value.Data()).points.size();
      return points == 0 ? std::string("(no points)") : Join({"(", std::to_string(points), " points)"});
    }
    default:
      return Join({"(", TypeName(value.Type()), ")"});
  }
}

// A limit to six digits: a table column has no room for 6.283185307179586.
std::string LimitText(platform::Float value) {
  char text[32];
  const bool whole = value == std::floor(value) && std::abs(value) < 1e12;
  std::snprintf(text, sizeof text, whole ? "%.0f" : "%.6g", value);
  return text;
}

// "0 .. 100 %", "0 .. units", ".. 1", or the unit alone.
std::string LimitsText(const ParameterDescription& parameter) {
  std::string text;
  if (parameter.minimum || parameter.maximum) {
    if (parameter.minimum) text.append(LimitText(*parameter.minimum)).append(" ");
    text.append("..");
    if (parameter.maximum) text.append(" ").append(LimitText(*parameter.maximum));
  }
  if (!parameter.unit.empty()) text.append(text.empty() ? "" : " ").append(parameter.unit);
  return text;
}

// Joins the words of a phrase that must not be broken across lines ("HIGHEST (6)").
constexpr char kUnbreakable = '\x1f';

// `text` broken at blanks into lines of at most kWidth columns, the first starting with
// `first` and the others indented by `indent` blanks. A word longer than a line stays whole.
std::string Wrapped(const std::string& first, std::string_view text, std::size_t indent) {
  std::string out = first;
  std::size_t column = first.size();
  bool lineEmpty = true;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t start = text.find_first_not_of(' ', at);
    if (start == std::string_view::npos) break;
    const std::size_t end = std::min(text.find(' ', start), text.size());
    const std::string_view word = text.substr(start, end - start);
    if (!lineEmpty && column + 1 + word.size() > kWidth) {
      out += '\n';
      out.append(indent, ' ');
      column = indent;
      lineEmpty = true;
    }
    if (!lineEmpty) {
      out += ' ';
      ++column;
    }
    out += word;
    column += word.size();
    lineEmpty = false;
    at = end;
  }
  std::replace(out.begin(), out.end(), kUnbreakable, ' ');
  return out + '\n';
}

std::string Padded(std::string text, std::size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text;
}

// Edit distance, so that a misspelt type name can be matched with the one meant.
std::size_t Distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

std::string Lower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return lower;
}

// The registered node type whose resource name is nearest to `typed`, if any is near
// enough to be a slip rather than another word.
std::optional<std::string> ClosestType(const platform::Registry& registry, std::string_view typed) {
  const std::string wanted = Lower(typed);
  std::optional<std::string> best;
  std::size_t bestDistance = std::max<std::size_t>(2, wanted.size() / 3) + 1;
  for (const auto& info : registry.All()) {
    if (!info->allocate && info->command == nullptr) continue;
    const std::size_t distance = Distance(wanted, Lower(info->resourceName));
    if (distance < bestDistance) {
      bestDistance = distance;
      best = info->resourceName;
    }
  }
  return best;
}

class Describer {
 public:
  Describer(platform::Host& host, const platform::ParameterHelp* help)
      : host_(host), registry_(host.GetRegistry()), help_(help) {}

  // The name people know a type by, and its one-line help.
  [[nodiscard]] std::string TypeLabel(const PluginInfo& info) const {
    if (info.nameStringId != 0 && host_.GetStrings().Contains(info.nameStringId))
      return host_.GetStrings().Get(info.nameStringId);
    if (const platform::HelpText* text = Find(info.resourceName)) return text->label;
    return info.resourceName;
  }
  [[nodiscard]] std::string TypeHelp(const PluginInfo& info) const {
    if (info.helpStringId != 0 && host_.GetStrings().Contains(info.helpStringId))
      return host_.GetStrings().Get(info.helpStringId);
    const platform::HelpText* text = Find(info.resourceName);
    return text != nullptr ? text->help : std::string();
  }

  void ListTypes() const {
    // Sections of the listing; nullptr stands for a menu separator.
    std::vector<const PluginInfo*> menu;
    std::vector<const PluginInfo*> fields;
    std::vector<const PluginInfo*> shading;  // materials and their shaders
    std::vector<const PluginInfo*> others;  // outside the menu, no field type: still worth a line
    for (const PluginInfo* info : registry_.MenuOrder()) {
      if (info->kind != platform::PluginKind::SEPARATOR)
        menu.push_back(info);
      else if (!menu.empty() && menu.back() != nullptr)  // one line for neighbouring separators
        menu.push_back(nullptr);
    }
    // None after the last entry: the menu ends with two.
    while (!menu.empty() && menu.back() == nullptr) menu.pop_back();
    for (const auto& info : registry_.All()) {
      if (!info->allocate) continue;
      if ((info->objectInfo & platform::OBJECT_FIELD) != 0)
        fields.push_back(info.get());
      else if ((info->objectInfo & (platform::OBJECT_MATERIAL | platform::OBJECT_SHADER)) != 0)
        shading.push_back(info.get());
      else if (!info->SortNumber())
        others.push_back(info.get());
    }

    TypeColumns columns;
    for (const auto* section : {&menu, &fields, &shading, &others})
      for (const PluginInfo* info : *section) {
        if (info == nullptr) continue;
        columns.name = std::max(columns.name, info->resourceName.size());
        columns.id = std::max(columns.id, std::to_string(info->id).size());
        columns.label = std::max(columns.label, TypeLabel(*info).size());
      }
    const auto print = [&](const char* heading, const std::vector<const PluginInfo*>& section) {
      if (section.empty()) return;
      std::printf("%s", heading);
      for (const PluginInfo* info : section) {
        if (info == nullptr) {
          std::printf("  ----\n");
          continue;
        }
        const std::string head = Join({"  ", Padded(info->resourceName, columns.name), "  ",
                                       Padded(std::to_string(info->id), columns.id), "  ",
                                       Padded(TypeLabel(*info), columns.label), "  "});
        std::fputs(Wrapped(head, TypeHelp(*info), head.size()).c_str(), stdout);
      }
    };
    print("The menu, in order: node types and commands:\n", menu);
    print("\nField object types, for the layers of masking field lists:\n", fields);
    print("\nMaterials and shaders, for the 'materials' of a scene:\n", shading);
    print("\nOther object types:\n", others);
    std::printf("\nSee the parameters of one type with 'vellgrund describe TYPE'.\n");
  }

  platform::Status DescribeCommand(const PluginInfo& info) const {
    std::string out = Join({TypeLabel(info), " (", info.resourceName, ", plug-in ID ", std::to_string(info.id),
                            ", a command of the editor's menu)\n"});
    if (const std::string help = TypeHelp(info); !help.empty()) out += Wrapped("", help, 0);
    if (!out.ends_with('\n')) out += '\n';
    std::fputs(out.c_str(), stdout);
    return platform::Ok();
  }

  platform::Status DescribeType(const PluginInfo& info) const {
    // Enabling and visibility depend on the other values, so they are shown for a node with
    // its defaults.
    platform::Document doc(host_);
    VLGD_ASSIGN_OR_RETURN(std::unique_ptr<platform::Node> node, doc.CreateNode(info.id));
    std::string out = Join({TypeLabel(info), " (", info.resourceName, ", plug-in ID ", std::to_string(info.id), ")\n"});
    if (const std::string help = TypeHelp(info); !help.empty()) out += Wrapped("", help, 0);
    out += "Marks in [brackets] hold while every parameter has its default; a scene file gives parameters\n"
           "by ID or symbol (see docs/scene-format.md).\n\n";

    const std::vector<ParameterDescription>& parameters = info.description.Parameters();
    Columns columns;
    for (const ParameterDescription& parameter : parameters) {
      columns.id = std::max(columns.id, std::to_string(parameter.id).size());
      columns.symbol = std::max(columns.symbol, parameter.symbol.size());
      columns.type = std::max(columns.type, KindText(parameter).size());
      columns.value = std::max(columns.value, std::min<std::size_t>(DefaultText(parameter).size(), 16));
    }
    out += Join({"  ", Padded("ID", columns.id), "  ", Padded("Symbol", columns.symbol), "  ",
                 Padded("Type", columns.type), "  ", Padded("Default", columns.value), "  Limits\n"});

    std::vector<bool> shown(parameters.size(), false);
    AppendGroup(0, parameters, *node, columns, shown, out);
    // Parameters that name a group nobody describes still belong on the page.
    for (std::size_t i = 0; i < parameters.size(); ++i)
      if (!shown[i]) AppendParameter(parameters[i], *node, columns, out);
    std::fputs(out.c_str(), stdout);
    return platform::Ok();
  }

 private:
  struct TypeColumns {
    std::size_t name = 0;
    std::size_t id = 0;
    std::size_t label = 0;
  };

  struct Columns {
    std::size_t id = 2;
    std::size_t symbol = 6;
    std::size_t type = 4;
    std::size_t value = 7;
  };

  [[nodiscard]] const platform::HelpText* Find(std::string_view key) const {
    return help_ != nullptr ? help_->Find(key) : nullptr;
  }

  [[nodiscard]] const platform::Enumeration* EnumerationOf(const ParameterDescription& parameter) const {
    return parameter.enumeration.empty() ? nullptr : registry_.Enumerations().Find(parameter.enumeration);
  }

  static std::string KindText(const ParameterDescription& parameter) {
    switch (parameter.kind) {
      case ParameterKind::BUTTON:
        return "button";
      case ParameterKind::GROUP:
        return "group";
      default:
        return TypeName(parameter.type);
    }
  }

  [[nodiscard]] std::string DefaultText(const ParameterDescription& parameter) const {
    if (parameter.kind != ParameterKind::VALUE) return "";
    return ValueText(parameter.defaultValue, EnumerationOf(parameter));
  }

  // The parameters of one group in description order; groups inside it as headings with
  // their own parameters below.
  void AppendGroup(platform::ParameterId group, const std::vector<ParameterDescription>& parameters,
                   const platform::Node& node, const Columns& columns, std::vector<bool>& shown,
                   std::string& out) const {
    for (std::size_t i = 0; i < parameters.size(); ++i) {
      const ParameterDescription& parameter = parameters[i];
      if (shown[i] || parameter.group != group) continue;
      shown[i] = true;
      if (parameter.kind != ParameterKind::GROUP) {
        AppendParameter(parameter, node, columns, out);
        continue;
      }
      const platform::HelpText* text = Find(parameter.symbol);
      const std::string title = text != nullptr ? text->label : parameter.symbol;
      out += Join({"\n  ", title, "  (group ", std::to_string(parameter.id), ")\n"});
      if (text != nullptr) out += Wrapped("  ", text->help, 2);
      AppendGroup(parameter.id, parameters, node, columns, shown, out);
      out += '\n';
    }
  }

  void AppendParameter(const ParameterDescription& parameter, const platform::Node& node, const Columns& columns,
                       std::string& out) const {
    std::string line = Join({"  ", Padded(std::to_string(parameter.id), columns.id), "  ",
                             Padded(parameter.symbol, columns.symbol), "  ", Padded(KindText(parameter), columns.type),
                             "  ", Padded(DefaultText(parameter), columns.value), "  "});
    // Limits that do not fit the row go on a line of their own below it.
    const std::string limits = LimitsText(parameter);
    const bool fits = line.size() + limits.size() <= kWidth;
    if (fits) line.append(limits);
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out.append(line).append("\n");
    if (!fits) out.append(std::string(2 + columns.id + 2, ' ')).append("Limits: ").append(limits).append("\n");

    // The details start below the symbol.
    const std::size_t indent = 2 + columns.id + 2;
    const std::string blank(indent, ' ');
    std::string detail;
    if (const platform::HelpText* text = Find(parameter.symbol)) detail = text->label;
    for (const char* state : States(parameter, node))
      detail.append(detail.empty() ? "" : " ").append("[").append(state).append("]");
    if (const platform::HelpText* text = Find(parameter.symbol)) detail.append(": ").append(text->help);
    if (!detail.empty()) out += Wrapped(blank, detail, indent);

    if (const platform::Enumeration* enumeration = EnumerationOf(parameter)) {
      std::string choices;
      for (const platform::EnumMember& member : enumeration->members)
        choices.append(choices.empty() ? "" : ", ")
            .append(Join({member.name, std::string_view(&kUnbreakable, 1), "(", std::to_string(member.value), ")"}));
      out += Wrapped(blank + (enumeration->isFlagSet ? "Flags, joined by |: " : "Choices: "), choices, indent + 2);
    }
  }

  // What makes a parameter special for someone writing a scene file, with the others at
  // their defaults.
  static std::vector<const char*> States(const ParameterDescription& parameter, const platform::Node& node) {
    std::vector<const char*> states;
    if (parameter.keptForFiles) states.push_back("kept for files (not used)");
    if (parameter.readOnly) states.push_back("read-only");
    if (!platform::IsParameterVisible(node, parameter.id)) states.push_back("hidden");
    if (!parameter.readOnly && !platform::IsParameterEnabled(node, parameter.id)) states.push_back("disabled");
    return states;
  }


  platform::Host& host_;
  const platform::Registry& registry_;
  const platform::ParameterHelp* help_;
};

}  // namespace

platform::Status RunDescribe(const std::string& type) {
  platform::Host host;
  platform::CollectingConsole console;
  VLGD_RETURN_IF_ERROR(StartHost(host, console));
  const platform::Registry& registry = host.GetRegistry();

  // Without its texts describe still lists what there is; the user hears why they are missing.
  const platform::Result<platform::ParameterHelp> help = platform::ParameterHelp::LoadFile(platform::ParameterHelp::DefaultFile());
  if (!help) std::fprintf(stderr, "vellgrund: %s Labels and help texts are left out.\n", help.error().message.c_str());
  const Describer describer(host, help ? &*help : nullptr);

  if (type.empty()) {
    describer.ListTypes();
    return platform::Ok();
  }
  const PluginInfo* info = registry.FindByResourceName(type);
  if (info == nullptr) {
    platform::Int32 id = 0;
    const auto [end, error] = std::from_chars(type.data(), type.data() + type.size(), id);
    if (error == std::errc() && end == type.data() + type.size()) info = registry.Find(id);
  }
  if (info != nullptr && info->command != nullptr) return describer.DescribeCommand(*info);
  if (info == nullptr || !info->allocate) {
    std::string message = Join({"Unknown node type or command '", type, "'"});
    if (const std::optional<std::string> closest = ClosestType(registry, type))
      message.append(Join({"; did you mean '", *closest, "'?"}));
    return platform::IllegalArgumentError(message.append(" (see 'vellgrund describe')"));
  }
  return describer.DescribeType(*info);
}

platform::Status RunNew() {
  std::fputs(VLGD::kDefaultScene, stdout);
  return platform::Ok();
}

}  // namespace vellgrund_cli
