#include "editor_session.h"

#include <chrono>
#include <utility>

#include "common/vlgd_icons.h"
#include "object/terrainobject.h"
#include "platform/command.h"
#include "platform/description.h"
#include "platform/field_list.h"
#include "platform/material.h"
#include "platform/mesh_io.h"
#include "platform/progress.h"
#include "platform/scene_codec.h"
#include "platform/scene_file.h"
#include "shader/bake.h"
#include "shader/shader_terrainoperator.h"
#include "vellgrund/baseterrainoperator.h"

namespace editor {

using platform::Node;
using platform::ParameterDescription;
using platform::Result;
using platform::ValueType;

namespace {

const char* TypeName(ValueType type) {
  switch (type) {
    case ValueType::BOOL:
      return "bool";
    case ValueType::INT32:
    case ValueType::INT64:
      return "int";
    case ValueType::FLOAT:
      return "float";
    case ValueType::VECTOR:
      return "vector";
    case ValueType::STRING:
      return "string";
    case ValueType::CURVE:
      return "curve";
    case ValueType::LINK:
      return "link";
    case ValueType::MATRIX:
      return "matrix";
    case ValueType::FIELDLIST:
      return "fieldlist";
    case ValueType::LINKLIST:
      return "linklist";
    case ValueType::SPLINEPATH:
      return "splinepath";
    case ValueType::NONE:
      break;
  }
  return "none";
}

const char* KindName(platform::ParameterKind kind) {
  switch (kind) {
    case platform::ParameterKind::GROUP:
      return "group";
    case platform::ParameterKind::BUTTON:
      return "button";
    default:
      return "value";
  }
}

platform::Status Refused(const std::string& message) {
  return platform::IllegalArgumentError(message);
}

// A request field of the expected JSON kind, or a refusal that names it.
template <class T>
Result<T> Field(const Json& request, const char* key) {
  const auto found = request.find(key);
  if (found == request.end()) return std::unexpected(Refused(std::string("The request has no '") + key + "'.").error());
  try {
    return found->get<T>();
  } catch (const Json::exception&) {
    return std::unexpected(Refused(std::string("The request's '") + key + "' has the wrong type.").error());
  }
}

// An optional yes-or-no field: anything but true is no.
bool Flag(const Json& request, const char* key) {
  const auto found = request.find(key);
  return found != request.end() && found->is_boolean() && found->get<bool>();
}

Json IconOf(const platform::IconCell* icon) {
  if (icon == nullptr) return nullptr;
  return {{"sheet", icon->sheet}, {"x", icon->x}, {"y", icon->y}};
}

Json IconOf(const platform::PluginInfo& info) {
  return IconOf(info.icon ? &*info.icon : nullptr);
}

// Where a node lives: among the objects, the document's materials, or a material's shaders.
enum class Kind { OBJECT, MATERIAL, SHADER };

Kind KindOf(const Node& node) {
  const platform::UInt32 info = node.GetTypeInfo().objectInfo;
  return (info & platform::OBJECT_MATERIAL) != 0 ? Kind::MATERIAL
         : (info & platform::OBJECT_SHADER) != 0 ? Kind::SHADER
                                                 : Kind::OBJECT;
}

// A node's children as the tree shows them. A material's are its shaders (its second
// branch); a shader's are its inputs, then the shaders of its own second branch (its mask),
// marked as such.
Json TreeOf(const Node* first) {
  Json nodes = Json::array();
  for (const Node* node = first; node != nullptr; node = node->GetNext()) {
    const Kind kind = KindOf(*node);
    Json children = TreeOf(kind == Kind::MATERIAL ? node->GetBranch() : node->GetDown());
    if (kind == Kind::SHADER)
      for (Json& mask : TreeOf(node->GetBranch())) {
        mask["mask"] = true;
        children.push_back(std::move(mask));
      }
    nodes.push_back({{"id", node->Identity()},
                     {"name", node->GetName()},
                     {"type", node->GetTypeInfo().resourceName},
                     {"enabled", node->IsEnabled()},
                     {"children", std::move(children)}});
  }
  return nodes;
}

std::string Quoted(const Node& node) {
  return "'" + (node.GetName().empty() ? node.GetTypeInfo().resourceName : node.GetName()) + "'";
}

const char* BlendName(platform::FieldBlend blend) {
  for (const auto& [value, name] : platform::kFieldBlendNames)
    if (value == blend) return name;
  return "NORMAL";
}

// A field list as the page shows it: layers naming their field by node identity.
Json FieldListJson(const platform::FieldList* list) {
  Json layers = Json::array();
  if (list != nullptr)
    for (const platform::FieldLayer& layer : list->Layers())
      layers.push_back({{"field", layer.field != 0 ? Json(layer.field) : Json()},
                        {"opacity", layer.opacity},
                        {"blend", BlendName(layer.blend)},
                        {"enabled", layer.enabled}});
  return {{"layers", std::move(layers)}};
}

// The page's field list applied to the node's one: only layers that differ are set, so that
// their dirty counts tell the evaluation what changed.
Result<platform::FieldList> ReadFieldList(const Json& json, const platform::FieldList* current,
                                          const platform::Document& doc) {
  if (!json.is_object() || !json.contains("layers") || !json["layers"].is_array())
    return std::unexpected(Refused("A field list is {\"layers\": [...]}.").error());
  platform::FieldList list = current != nullptr ? *current : platform::FieldList();
  const Json& layers = json["layers"];
  for (std::size_t i = 0; i < layers.size(); ++i) {
    const Json& entry = layers[i];
    const std::string at = "Layer " + std::to_string(i);
    if (!entry.is_object()) return std::unexpected(Refused(at + " is no object.").error());
    platform::FieldLayer layer;
    const Json field = entry.value("field", Json());
    if (!field.is_null()) {
      const Node* linked = field.is_number_unsigned() ? doc.FindByIdentity(field.get<std::uint64_t>()) : nullptr;
      if (linked == nullptr || (linked->GetTypeInfo().objectInfo & platform::OBJECT_FIELD) == 0)
        return std::unexpected(Refused(at + ": " + field.dump() + " is no field object.").error());
      layer.field = linked->Identity();
    }
    const Json opacity = entry.value("opacity", Json(1.0));
    if (!opacity.is_number() || !(opacity.get<double>() >= 0.0 && opacity.get<double>() <= 1.0))
      return std::unexpected(Refused(at + ": the opacity is a number in 0 .. 1.").error());
    layer.opacity = opacity.get<double>();
    const Json blend = entry.value("blend", Json("NORMAL"));
    const auto* found = std::ranges::find_if(platform::kFieldBlendNames, [&](const auto& named) {
      return blend.is_string() && blend.get<std::string>() == named.second;
    });
    if (found == std::end(platform::kFieldBlendNames))
      return std::unexpected(Refused(at + ": the blend is NORMAL, ADD, MULTIPLY, MAX or MIN.").error());
    layer.blend = found->first;
    const Json enabled = entry.value("enabled", Json(true));
    if (!enabled.is_boolean()) return std::unexpected(Refused(at + ": 'enabled' is true or false.").error());
    layer.enabled = enabled.get<bool>();
    const auto index = static_cast<platform::Int>(i);
    if (i < list.Layers().size()) {
      if (!(list.Layers()[i] == layer)) (void)list.SetLayer(index, layer);  // the index is in range
    } else {
      VLGD_RETURN_IF_ERROR(list.AddLayer(layer));
    }
  }
  while (list.Layers().size() > layers.size()) (void)list.RemoveLayer(static_cast<platform::Int>(layers.size()));
  return list;
}

// How the page makes the terrain's mesh from its heights as the build made it: the hull,
// the isoparm outline and the curvature.
Json MeshOptions(const platform::ParameterContainer& data) {
  const bool curved = data.GetBool(VLGD::TERRAINOBJECT_CURVATURE);
  return {
      {"hull", data.GetBool(VLGD::TERRAINOBJECT_HULL) && !curved ? Json(data.GetFloat(VLGD::TERRAINOBJECT_HULL_DEPTH))
                                                                 : Json()},
      {"isoparms", data.GetInt32(VLGD::TERRAINOBJECT_ISOPARM_LINES, 1)},
      {"curvature", curved ? Json{{"radius", data.GetFloat(VLGD::TERRAINOBJECT_CURVATURE_RADIUS)},
                                  {"invert", data.GetBool(VLGD::TERRAINOBJECT_CURVATURE_INVERT)}}
                           : Json()}};
}

}  // namespace

// Build progress as the page sees it, written by the build thread.
class EditorSession::ProgressRelay final : public platform::ProgressSink {
 public:
  explicit ProgressRelay(EditorSession& session) : session_(session) {}
  void SetStatus(std::string_view text) override {
    const std::lock_guard lock(session_.versionMutex_);
    session_.progressText_ = text;
    Publish();
  }
  void ClearStatus() override { SetStatus({}); }
  void SetProgress(double fraction) override {
    const std::lock_guard lock(session_.versionMutex_);
    session_.progressFraction_ = fraction;
    Publish();
  }

 private:
  void Publish() {
    ++session_.versions_.progress;
    session_.changed_.notify_all();
  }
  EditorSession& session_;
};

// The dialogs of commands and buttons, answered for the page: messages and documentation
// pages go back with the reply to the request that caused them; a save dialog takes the
// file that the request named, or, without one, tells the page which dialog to show so
// that it asks the user and sends the request again with the answer.
class EditorSession::Dialogs final : public platform::UserInterface {
 public:
  std::optional<std::filesystem::path> SaveFileDialog(std::string_view title, std::string_view proposedName,
                                                      std::string_view suffix) override {
    const std::lock_guard lock(mutex_);
    if (answer_) return std::exchange(answer_, std::nullopt);
    asked_ = {{"title", title}, {"name", proposedName}, {"suffix", suffix}};
    return std::nullopt;
  }
  void MessageDialog(std::string_view text) override {
    const std::lock_guard lock(mutex_);
    messages_.emplace_back(text);
  }
  std::optional<std::filesystem::path> OpenPage(const std::filesystem::path& page) override {
    const std::filesystem::path relative = page.lexically_relative(platform::DocumentationFolder());
    if (relative.empty() || *relative.begin() == "..") return page;
    const std::lock_guard lock(mutex_);
    page_ = "/docs/" + relative.generic_string();
    return std::nullopt;
  }

  void Begin(std::optional<std::filesystem::path> answer) {
    const std::lock_guard lock(mutex_);
    answer_ = std::move(answer);
    asked_ = nullptr;
    page_.clear();
  }
  // What the request's dialogs said, into its reply.
  void End(Json& reply) {
    const std::lock_guard lock(mutex_);
    if (!reply.is_object()) reply = Json::object();
    if (!messages_.empty()) reply["messages"] = std::exchange(messages_, {});
    if (!asked_.is_null()) reply["dialog"] = std::exchange(asked_, nullptr);
    if (!page_.empty()) reply["page"] = std::exchange(page_, {});
    answer_.reset();
  }

 private:
  std::mutex mutex_;
  std::optional<std::filesystem::path> answer_;
  Json asked_;
  std::vector<std::string> messages_;
  std::string page_;
};

EditorSession::EditorSession(platform::Host& host, std::unique_ptr<platform::Document> document,
                             std::filesystem::path scene, const std::vector<std::filesystem::path>& folders)
    : host_(host),
      document_(std::move(document)),
      scene_(std::move(scene)),
      folders_(folders),
      dialogs_(std::make_unique<Dialogs>()),
      hostInterface_(&host.GetUserInterface()),
      help_(platform::ParameterHelp::LoadFile(platform::ParameterHelp::DefaultFile())),
      progress_(std::make_unique<ProgressRelay>(*this)) {
  std::error_code error;
  if (!scene_.empty()) {
    sceneTime_ = std::filesystem::last_write_time(scene_, error);
    folders_.AddRoot(std::filesystem::absolute(scene_, error).parent_path());
  }
  host_.SetUserInterface(*dialogs_);
  builder_ = std::thread([this] { BuildLoop(); });
}

EditorSession::~EditorSession() {
  Close();
  if (builder_.joinable()) builder_.join();
  host_.SetUserInterface(*hostInterface_);
}

void EditorSession::Close() {
  cancel_.Cancel();
  const std::lock_guard lock(versionMutex_);
  closing_ = true;
  changed_.notify_all();
}

bool EditorSession::Closing() {
  const std::lock_guard lock(versionMutex_);
  return closing_;
}

std::string EditorSession::TypeLabel(const platform::PluginInfo& info) const {
  // Materials and shaders have no name string; their help gives the name people know.
  const platform::StringTable& strings = host_.GetStrings();
  if (info.nameStringId != 0 && strings.Contains(info.nameStringId)) return strings.Get(info.nameStringId);
  const platform::HelpText* text = help_ ? help_->Find(info.resourceName) : nullptr;
  return text != nullptr ? text->label : info.resourceName;
}

Json EditorSession::Types() const {
  const platform::Registry& registry = host_.GetRegistry();
  const platform::StringTable& strings = host_.GetStrings();
  const auto nameOf = [&](const platform::PluginInfo& info) { return TypeLabel(info); };
  Json types = Json::array();
  for (const platform::PluginInfo* info : registry.MenuOrder()) {
    Json type = {{"id", info->id}, {"type", info->resourceName}};
    if (info->kind == platform::PluginKind::SEPARATOR) {
      type["kind"] = "separator";
      types.push_back(std::move(type));
      continue;
    }
    type["kind"] = info->command ? "command" : "object";
    type["name"] = strings.Get(info->nameStringId);
    type["help"] = info->helpStringId ? strings.Get(info->helpStringId) : "";
    if (info->icon) type["icon"] = IconOf(*info);
    types.push_back(std::move(type));
  }
  // Every node type, in the menu or not (field objects), with its parameters.
  Json described = Json::object();
  Json shading = Json::array();  // what the add menu offers after the objects
  for (const auto& info : registry.All()) {
    if (!info->allocate) continue;
    if ((info->objectInfo & (platform::OBJECT_MATERIAL | platform::OBJECT_SHADER)) != 0)
      shading.push_back({{"type", info->resourceName},
                         {"kind", (info->objectInfo & platform::OBJECT_MATERIAL) != 0 ? "material" : "shader"},
                         {"name", nameOf(*info)},
                         {"icon", IconOf(*info)}});
    Json parameters = Json::array();
    for (const ParameterDescription& parameter : info->description.Parameters()) {
      const platform::HelpText* text = help_ ? help_->Find(parameter.symbol) : nullptr;
      Json entry = {{"id", parameter.id},
                    {"symbol", parameter.symbol},
                    {"kind", KindName(parameter.kind)},
                    {"type", TypeName(parameter.type)},
                    {"group", parameter.group},
                    {"label", text ? text->label : parameter.symbol},
                    {"help", text ? text->help : ""},
                    {"unit", parameter.unit},
                    {"readOnly", parameter.readOnly}};
      if (parameter.minimum) entry["minimum"] = *parameter.minimum;
      if (parameter.maximum) entry["maximum"] = *parameter.maximum;
      if (const platform::Enumeration* choice = registry.Enumerations().Find(parameter.enumeration)) {
        Json members = Json::array();
        for (const platform::EnumMember& member : choice->members) {
          Json named = {{"name", member.name}, {"value", member.value}};
          if (choice->name == "BLENDMODE" && member.value >= 0 && member.value < std::ssize(VLGD::kBlendModeIconIds))
            named["icon"] = IconOf(registry.FindIcon(VLGD::kBlendModeIconIds[member.value]));
          members.push_back(std::move(named));
        }
        entry["choices"] = std::move(members);
      }
      parameters.push_back(std::move(entry));
    }
    const platform::HelpText* text = help_ ? help_->Find(info->resourceName) : nullptr;
    described[info->resourceName] = {{"id", info->id},
                                     {"name", nameOf(*info)},
                                     {"help", text ? text->help : ""},
                                     {"icon", IconOf(*info)},
                                     {"parameters", std::move(parameters)}};
  }
  Json presets = Json::array();
  if (const platform::Enumeration* curves = registry.Enumerations().Find("SPLINEDATAPRESET"))
    for (const platform::EnumMember& member : curves->members) presets.push_back(member.name);
  return {{"menu", std::move(types)},
          {"shading", std::move(shading)},
          {"nodeTypes", std::move(described)},
          {"curvePresets", std::move(presets)}};
}

Json EditorSession::State() {
  const std::lock_guard lock(documentMutex_);
  platform::Document& doc = *document_;
  Json selection = Json::array();
  for (const Node* node : doc.GetActiveObjects()) selection.push_back(node->Identity());
  Json commands = Json::object();
  for (const platform::PluginInfo* command : platform::MenuCommands(host_.GetRegistry()))
    commands[std::to_string(command->id)] = platform::IsCommandEnabled(doc, *command);
  const Node* first = nullptr;
  for (Node* node : doc.AllNodes())
    if (node->GetUp() == nullptr) {
      first = node;
      break;
    }
  std::uint64_t version = 0;
  {
    const std::lock_guard versions(versionMutex_);
    version = versions_.document;
  }
  const platform::ParameterContainer& preferences = doc.GetWorldPluginData(VLGD::ID_PREFERENCES);
  return {{"version", version},
          {"scene", scene_.string()},
          {"preferences",
           {{"maxResolution", preferences.GetInt32(VLGD::PREFS_MAX_RESOLUTION, VLGD::kDefaultMaxResolution)},
            {"showOverlay", preferences.GetBool(VLGD::PREFS_SHOW_OVERLAY, true)},
            {"fromScene", doc.WorldOverrides().contains(VLGD::ID_PREFERENCES)}}},
          {"tree", TreeOf(first)},
          {"materials", TreeOf(doc.GetFirstMaterial())},
          {"selection", std::move(selection)},
          {"commands", std::move(commands)},
          {"undo", doc.UndoCount()},
          {"redo", doc.RedoCount()}};
}

Json EditorSession::NodeValues(std::uint64_t identity) {
  const std::lock_guard lock(documentMutex_);
  const Node* node = document_->FindByIdentity(identity);
  if (node == nullptr) return nullptr;
  Json values = Json::object();
  for (const ParameterDescription& parameter : node->GetTypeInfo().description.Parameters()) {
    Json entry = {{"enabled", platform::IsParameterEnabled(*node, parameter.id)},
                  {"visible", platform::IsParameterVisible(*node, parameter.id)}};
    if (parameter.kind == platform::ParameterKind::VALUE) {
      if (parameter.type == ValueType::LINK) {
        const platform::Value* link = node->GetData().Find(parameter.id);
        const Node* target = link ? document_->Resolve(std::get<platform::NodeLink>(link->Data())) : nullptr;
        entry["value"] = target ? Json(target->Identity()) : Json();
      } else if (parameter.type == ValueType::FIELDLIST) {
        entry["value"] = FieldListJson(node->GetData().GetFieldList(parameter.id));
      } else if (auto written = platform::WriteParameterValue(*node, parameter)) {
        entry["value"] = Json::parse(*written, nullptr, false);
      }
    }
    values[std::to_string(parameter.id)] = std::move(entry);
  }
  Json reply = {{"id", identity},
                {"name", node->GetName()},
                {"type", node->GetTypeInfo().resourceName},
                {"values", std::move(values)}};
  if (node->GetType() == VLGD::ID_TERRAINOBJECT) {
    // Deleted materials drop out; their links stay for undo to bring them back.
    Json materials = Json::array();
    for (const platform::NodeLink& link : node->GetTextureLinks())
      if (const Node* material = document_->Resolve(link))
        materials.push_back({{"id", material->Identity()}, {"name", material->GetName()}});
    reply["materials"] = std::move(materials);
  }
  return reply;
}

Result<Json> EditorSession::Apply(const Json& request) {
  if (!request.is_object()) return std::unexpected(Refused("A request is a JSON object.").error());
  const auto found = request.find("action");
  const std::string action = found != request.end() && found->is_string() ? found->get<std::string>() : "";
  // A selection or a save changes nothing that is built. A button may read the build (the
  // export), so it waits for the running one; any other edit stops it at its next break
  // test rather than waiting for it.
  const bool rebuilds = action != "select" && action != "save" && action != "export";
  if (action == "button" || action == "export")
    WaitForBuild();
  else if (rebuilds)
    cancel_.Cancel();
  Result<Json> reply = Json();
  {
    const std::lock_guard lock(documentMutex_);
    std::optional<std::filesystem::path> answer;
    if (action == "button" && request.contains("file")) {
      VLGD_ASSIGN_OR_RETURN(const std::string file, Field<std::string>(request, "file"));
      const std::lock_guard folders(folderMutex_);
      VLGD_ASSIGN_OR_RETURN(answer, folders_.Resolve(file));
    }
    dialogs_->Begin(std::move(answer));
    reply = ApplyLocked(request);
    Json said;
    dialogs_->End(reply ? *reply : said);
  }
  if (reply && rebuilds) RequestBuild();
  return reply;
}

void EditorSession::WaitForBuild() {
  std::unique_lock lock(versionMutex_);
  changed_.wait(lock, [&] { return closing_ || finishedBuild_ == wantedBuild_; });
}

Result<Json> EditorSession::Files(const std::string& folder, bool showAll) {
  const std::lock_guard lock(folderMutex_);
  return folders_.List(folder, showAll);
}

Result<Json> EditorSession::SetPreferences(const Json& request) {
  platform::Preferences& preferences = host_.GetPreferences();
  platform::ParameterContainer& page = preferences.GetWorldPluginData(VLGD::ID_PREFERENCES);
  platform::ParameterContainer before;
  VLGD_RETURN_IF_ERROR(before.CopyFrom(page));
  if (request.contains("maxResolution")) {
    VLGD_ASSIGN_OR_RETURN(const platform::Int32 cap, Field<platform::Int32>(request, "maxResolution"));
    if (cap < 1 || cap > VLGD::kHardMaxResolution)
      return std::unexpected(
          Refused("The maximum resolution is 1 .. " + std::to_string(VLGD::kHardMaxResolution) + ".").error());
    VLGD_RETURN_IF_ERROR(page.Set(VLGD::PREFS_MAX_RESOLUTION, cap));
  }
  if (request.contains("showOverlay")) {
    VLGD_ASSIGN_OR_RETURN(const bool shown, Field<bool>(request, "showOverlay"));
    VLGD_RETURN_IF_ERROR(page.Set(VLGD::PREFS_SHOW_OVERLAY, shown));
  }
  // Stored where every front-end reads them; a failed save takes the change back.
  if (platform::Status saved = preferences.Save(platform::Preferences::DefaultFile()); !saved) {
    (void)page.CopyFrom(before);  // restores what was there
    return std::unexpected(saved.error());
  }
  for (Node* node : document_->AllNodes()) (void)node->Message(VLGD::ID_PREFERENCES);
  return Json::object();
}

Result<Json> EditorSession::Open(const Json& request) {
  VLGD_ASSIGN_OR_RETURN(const std::string file, Field<std::string>(request, "file"));
  std::filesystem::path path;
  {
    const std::lock_guard folders(folderMutex_);
    VLGD_ASSIGN_OR_RETURN(path, folders_.Resolve(file));
  }
  VLGD_ASSIGN_OR_RETURN(std::unique_ptr<platform::Document> opened, platform::LoadSceneFile(host_, path));
  document_ = std::move(opened);
  scene_ = path;
  std::error_code error;
  sceneTime_ = std::filesystem::last_write_time(scene_, error);
  const std::lock_guard versions(versionMutex_);
  built_.clear();
  return Json{{"opened", scene_.string()}};
}

Result<Json> EditorSession::Save(const Json& request) {
  std::filesystem::path target = scene_;
  const bool saveAs = request.contains("file");
  if (saveAs) {
    VLGD_ASSIGN_OR_RETURN(const std::string file, Field<std::string>(request, "file"));
    const std::lock_guard folders(folderMutex_);
    VLGD_ASSIGN_OR_RETURN(target, folders_.Resolve(file));
  }
  if (target.empty()) return std::unexpected(Refused("This scene has no file yet.").error());
  // A file changed on disk since it was loaded (by another program, another editor) is
  // overwritten only when the user says so; so is another existing file saved over.
  std::error_code error;
  const auto onDisk = std::filesystem::last_write_time(target, error);
  const bool newer = !error && (saveAs ? target != scene_ : onDisk > sceneTime_);
  if (newer && !Flag(request, "overwrite"))
    return std::unexpected(
        Refused("\"" + target.string() +
                (saveAs && target != scene_ ? "\" exists; save again to overwrite it."
                                            : "\" changed on disk since it was opened; save again to overwrite it."))
            .error());
  VLGD_RETURN_IF_ERROR(platform::SaveSceneFile(*document_, target));
  scene_ = target;
  sceneTime_ = std::filesystem::last_write_time(scene_, error);
  return Json{{"saved", scene_.string()}};
}

Result<Json> EditorSession::ApplyLocked(const Json& request) {
  platform::Document& doc = *document_;
  VLGD_ASSIGN_OR_RETURN(const std::string action, Field<std::string>(request, "action"));
  // The nodes a request names must exist now.
  const auto node = [&](const char* key, bool optional = false) -> Result<Node*> {
    const auto found = request.find(key);
    if (found == request.end() || found->is_null()) {
      if (optional) return nullptr;
      return std::unexpected(Refused(std::string("The request has no '") + key + "'.").error());
    }
    if (!found->is_number_unsigned()) return std::unexpected(Refused(std::string("'") + key + "' is no node.").error());
    Node* named = doc.FindByIdentity(found->get<std::uint64_t>());
    if (named == nullptr) return std::unexpected(Refused(std::string("No node ") + found->dump() + ".").error());
    return named;
  };
  const auto nodeList = [&]() -> Result<std::vector<Node*>> {
    VLGD_ASSIGN_OR_RETURN(const std::vector<std::uint64_t> ids, Field<std::vector<std::uint64_t>>(request, "nodes"));
    std::vector<Node*> nodes;
    for (const std::uint64_t id : ids) {
      Node* found = doc.FindByIdentity(id);
      if (found == nullptr) return std::unexpected(Refused("No node " + std::to_string(id) + ".").error());
      nodes.push_back(found);
    }
    return nodes;
  };
  const auto parameterOf = [&](Node& target) -> Result<const ParameterDescription*> {
    VLGD_ASSIGN_OR_RETURN(const platform::Int32 id, Field<platform::Int32>(request, "parameter"));
    const ParameterDescription* parameter = target.GetTypeInfo().description.Find(id);
    if (parameter == nullptr)
      return std::unexpected(
          Refused("'" + target.GetTypeInfo().resourceName + "' has no parameter " + std::to_string(id) + ".").error());
    return parameter;
  };
  const auto changed = [&](Json reply = Json::object()) -> Result<Json> {
    const std::lock_guard lock(versionMutex_);
    ++versions_.document;
    changed_.notify_all();
    return reply;
  };

  if (action == "set") {
    VLGD_ASSIGN_OR_RETURN(Node * target, node("node"));
    VLGD_ASSIGN_OR_RETURN(const ParameterDescription* parameter, parameterOf(*target));
    if (parameter->kind != platform::ParameterKind::VALUE || parameter->readOnly)
      return std::unexpected(Refused(parameter->symbol + " is not edited.").error());
    if (!request.contains("value")) return std::unexpected(Refused("The request has no 'value'.").error());
    const Json& json = request["value"];
    platform::Value value;
    if (parameter->type == ValueType::LINK) {
      platform::NodeLink link;
      if (!json.is_null()) {
        VLGD_ASSIGN_OR_RETURN(Node * linked, node("value"));
        // Links read objects; the terrain operator shader reads an operator.
        if (KindOf(*linked) != Kind::OBJECT)
          return std::unexpected(Refused(parameter->symbol + " links an object, not " + Quoted(*linked) + ".").error());
        if (target->GetType() == VLGD::ID_TERRAINOPERATORSHADER &&
            parameter->id == VLGD::TERRAINOPERATORSHADER_OPERATOR &&
            !linked->IsInstanceOf(VLGD::ID_BASETERRAINOPERATOR))
          return std::unexpected(Refused(Quoted(*linked) + " is no terrain operator.").error());
        link.target = linked->Identity();
      }
      value = platform::Value(link);
    } else if (parameter->type == ValueType::FIELDLIST) {
      VLGD_ASSIGN_OR_RETURN(platform::FieldList list,
                            ReadFieldList(json, target->GetData().GetFieldList(parameter->id), doc));
      value = platform::Value(std::move(list));
    } else {
      VLGD_ASSIGN_OR_RETURN(value, platform::ReadParameterValue(*target, *parameter, json.dump()));
    }
    doc.StartUndo();
    platform::Status added = doc.AddUndo(platform::UNDOTYPE_CHANGE_SMALL, *target);
    platform::Status set = added ? doc.SetParameter(*target, parameter->id, std::move(value)) : added;
    doc.EndUndo();
    if (!set) return std::unexpected(set.error());
    return changed();
  }
  if (action == "button") {
    VLGD_ASSIGN_OR_RETURN(Node * target, node("node"));
    VLGD_ASSIGN_OR_RETURN(const ParameterDescription* parameter, parameterOf(*target));
    if (parameter->kind != platform::ParameterKind::BUTTON)
      return std::unexpected(Refused(parameter->symbol + " is no button.").error());
    doc.StartUndo();
    (void)doc.AddUndo(platform::UNDOTYPE_CHANGE, *target);
    const bool handled = doc.PressButton(*target, parameter->id);
    doc.EndUndo();
    return changed({{"handled", handled}});
  }
  if (action == "insert") {
    VLGD_ASSIGN_OR_RETURN(const std::string type, Field<std::string>(request, "type"));
    VLGD_ASSIGN_OR_RETURN(Node * parent, node("parent", true));
    VLGD_ASSIGN_OR_RETURN(Node * before, node("before", true));
    VLGD_ASSIGN_OR_RETURN(std::unique_ptr<Node> created, doc.CreateNode(type));
    VLGD_RETURN_IF_ERROR(doc.CanPlace(*created, parent, before));
    if (created->GetName() == type) created->SetName(TypeLabel(created->GetTypeInfo()));
    doc.StartUndo();
    Result<Node*> inserted = doc.Place(std::move(created), parent, before, Flag(request, "mask"));
    if (!inserted) {
      doc.EndUndo();
      return std::unexpected(inserted.error());
    }
    (void)doc.AddUndo(platform::UNDOTYPE_NEWOBJ, **inserted);
    doc.SetActiveObject(*inserted);
    doc.EndUndo();
    return changed({{"id", (*inserted)->Identity()}});
  }
  if (action == "remove") {
    VLGD_ASSIGN_OR_RETURN(const std::vector<Node*> nodes, nodeList());
    doc.StartUndo();
    for (Node* removed : nodes) {
      // A node inside another removed one goes with it.
      bool inside = false;
      for (const Node* other : nodes) inside = inside || (other != removed && other->IsAncestorOf(*removed));
      if (inside) continue;
      (void)doc.AddUndo(platform::UNDOTYPE_DELETEOBJ, *removed);
      (void)doc.Remove(*removed);
    }
    doc.EndUndo();
    return changed();
  }
  if (action == "move") {
    VLGD_ASSIGN_OR_RETURN(Node * moved, node("node"));
    VLGD_ASSIGN_OR_RETURN(Node * parent, node("parent", true));
    VLGD_ASSIGN_OR_RETURN(Node * before, node("before", true));
    if (before != nullptr) parent = before->GetUp();
    if (before == moved || (parent != nullptr && (parent == moved || moved->IsAncestorOf(*parent))))
      return std::unexpected(Refused("A node cannot move into itself.").error());
    VLGD_RETURN_IF_ERROR(doc.CanPlace(*moved, parent, before));
    doc.StartUndo();
    (void)doc.AddUndo(platform::UNDOTYPE_CHANGE, *moved);
    // Checked above, with the node still in place; taking it out changes neither target.
    (void)doc.Place(doc.Remove(*moved), parent, before, Flag(request, "mask"));
    doc.EndUndo();
    return changed();
  }
  if (action == "materials") {
    // The materials a terrain wears, in order: the whole list at once, one undo step.
    VLGD_ASSIGN_OR_RETURN(Node * terrain, node("node"));
    if (terrain->GetType() != VLGD::ID_TERRAINOBJECT)
      return std::unexpected(Refused("Only terrains wear materials, not " + Quoted(*terrain) + ".").error());
    VLGD_ASSIGN_OR_RETURN(const std::vector<Node*> materials, nodeList());
    std::vector<platform::NodeLink> links;
    for (const Node* material : materials) {
      if (KindOf(*material) != Kind::MATERIAL)
        return std::unexpected(Refused(Quoted(*material) + " is no material.").error());
      if (std::ranges::find(links, material->Identity(), &platform::NodeLink::target) != links.end())
        return std::unexpected(Refused(Quoted(*material) + " is listed twice.").error());
      links.push_back({material->Identity()});
    }
    doc.StartUndo();
    (void)doc.AddUndo(platform::UNDOTYPE_CHANGE, *terrain);
    terrain->SetTextureLinks(std::move(links));
    doc.EndUndo();
    return changed();
  }
  if (action == "rename" || action == "enable") {
    VLGD_ASSIGN_OR_RETURN(Node * target, node("node"));
    std::string name;
    bool enabled = false;
    if (action == "rename") {
      VLGD_ASSIGN_OR_RETURN(name, Field<std::string>(request, "name"));
    } else {
      VLGD_ASSIGN_OR_RETURN(enabled, Field<bool>(request, "enabled"));
    }
    doc.StartUndo();
    (void)doc.AddUndo(platform::UNDOTYPE_CHANGE, *target);
    if (action == "rename")
      target->SetName(std::move(name));
    else
      target->SetEnabled(enabled);
    doc.EndUndo();
    return changed();
  }
  if (action == "select") {
    VLGD_ASSIGN_OR_RETURN(const std::vector<Node*> nodes, nodeList());
    doc.SetActiveObject(nullptr);
    for (Node* selected : nodes) doc.SetActiveObject(selected, platform::SelectionMode::ADD);
    return changed();
  }
  if (action == "command") {
    VLGD_ASSIGN_OR_RETURN(const platform::Int32 id, Field<platform::Int32>(request, "command"));
    const platform::PluginInfo* command = platform::FindCommand(host_.GetRegistry(), id);
    if (command == nullptr) return std::unexpected(Refused("No command " + std::to_string(id) + ".").error());
    const bool modifier = Flag(request, "modifier");
    // A command acts on what it finds selected; one that does not apply would misplace nodes
    // (a group among a material's shaders).
    if (!platform::IsCommandEnabled(doc, *command, {.modifier = modifier}))
      return std::unexpected(
          Refused("'" + host_.GetStrings().Get(command->nameStringId) + "' does not apply to the selection.").error());
    VLGD_ASSIGN_OR_RETURN(const bool done, platform::ExecuteCommand(doc, *command, {.modifier = modifier}));
    return changed({{"done", done}});
  }
  if (action == "export") {
    // The mesh of the last build, as the command-line tool writes it.
    VLGD_ASSIGN_OR_RETURN(Node * terrain, node("node"));
    VLGD_ASSIGN_OR_RETURN(const std::string file, Field<std::string>(request, "file"));
    std::filesystem::path target;
    {
      const std::lock_guard folders(folderMutex_);
      VLGD_ASSIGN_OR_RETURN(target, folders_.Resolve(file));
    }
    std::error_code error;
    if (std::filesystem::exists(target, error) && !Flag(request, "overwrite"))
      return std::unexpected(Refused("\"" + target.string() + "\" exists; export again to overwrite it.").error());
    const std::shared_ptr<const platform::GeometryObject> mesh = terrain->ShareCache();
    if (mesh == nullptr) return std::unexpected(Refused("'" + terrain->GetName() + "' has no built mesh.").error());
    VLGD_RETURN_IF_ERROR(platform::WriteGeometry(*mesh, target));
    return Json{{"exported", target.string()}};
  }
  if (action == "save" || action == "open" || action == "preferences") {
    VLGD_ASSIGN_OR_RETURN(Json reply, action == "save"   ? Save(request)
                                      : action == "open" ? Open(request)
                                                         : SetPreferences(request));
    return changed(std::move(reply));
  }
  if (action == "undo" || action == "redo") {
    const bool done = action == "undo" ? doc.DoUndo() : doc.DoRedo();
    return changed({{"done", done}});
  }
  return std::unexpected(Refused("Unknown action '" + action + "'.").error());
}

void EditorSession::RequestBuild() {
  const std::lock_guard lock(versionMutex_);
  ++wantedBuild_;
  changed_.notify_all();
}

void EditorSession::BuildLoop() {
  std::uint64_t done = 0;
  for (;;) {
    std::uint64_t wanted = 0;
    {
      std::unique_lock lock(versionMutex_);
      changed_.wait(lock, [&] { return closing_ || wantedBuild_ != done; });
      if (closing_) return;
      wanted = wantedBuild_;
    }
    std::vector<BuiltTerrain> terrains;
    Json summary;
    platform::Status status = platform::Ok();
    std::uint64_t documentVersion = 0;
    {
      const std::lock_guard lock(documentMutex_);
      {
        // An edit that came in after `wanted` was read cancels this build again.
        const std::lock_guard versions(versionMutex_);
        if (wantedBuild_ != wanted) continue;
        cancel_.Reset();
        documentVersion = versions_.document;  // every edit up to this one is in the build
      }
      platform::HierarchyHelp help;
      help.purpose = platform::BuildPurpose::EDITOR;
      help.cancel = &cancel_;
      help.progress = progress_.get();
      const auto start = std::chrono::steady_clock::now();
      status = document_->ExecutePasses(help);
      const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      if (cancel_.IsCancelled()) continue;  // a newer edit is waiting
      for (Node* node : document_->AllNodes()) {
        if (node->GetType() != VLGD::ID_TERRAINOBJECT || !node->IsActiveFor(help.purpose)) continue;
        const auto* terrain = node->GetNodeData<VLGD::TerrainObject>();
        Json operators = Json::array();
        for (const VLGD::TerrainObject::OperatorReport& report : terrain->LastBuildReport())
          operators.push_back({{"id", report.object->Identity()},
                               {"name", report.object->GetName()},
                               {"rebuilt", report.rebuilt},
                               {"seconds", report.seconds},
                               {"memory", report.memoryBytes}});
        const auto grid = terrain->ShareGrid();
        const platform::ParameterContainer& data = node->GetData();
        terrains.push_back({node->Identity(),
                            node->GetName(),
                            grid,
                            {{"id", node->Identity()},
                             {"name", node->GetName()},
                             {"columns", grid->Width()},
                             {"rows", grid->Height()},
                             {"sizeX", grid->SizeX()},
                             {"sizeZ", grid->SizeY()},
                             {"minimum", grid->IsMinMaxValid() ? grid->Minimum() : 0.0},
                             {"maximum", grid->IsMinMaxValid() ? grid->Maximum() : 0.0},
                             {"memory", data.GetString(VLGD::TERRAINOBJECT_MEMORY_INFO)},
                             {"mesh", MeshOptions(data)},
                             {"operators", std::move(operators)}}});
      }
      summary = {{"seconds", seconds}, {"error", status ? "" : status.error().message}, {"document", documentVersion}};
      if (status && !Bake(terrains, summary)) continue;  // a newer edit is waiting
    }
    const std::lock_guard lock(versionMutex_);
    done = wanted;
    finishedBuild_ = wanted;
    built_ = std::move(terrains);
    Json list = Json::array();
    for (const BuiltTerrain& terrain : built_) list.push_back(terrain.overlay);
    summary["terrains"] = std::move(list);
    buildSummary_ = std::move(summary);
    progressText_.clear();
    ++versions_.build;
    changed_.notify_all();
  }
}

bool EditorSession::Bake(std::vector<BuiltTerrain>& terrains, Json& summary) {
  std::vector<BuiltTerrain> before = Built();
  const auto start = std::chrono::steady_clock::now();
  for (BuiltTerrain& built : terrains) {
    Node* terrain = document_->FindByIdentity(built.node);
    if (terrain == nullptr) continue;
    auto reports = VLGD::BakeMaterials(*terrain, *document_, {.cancel = &cancel_, .progress = progress_.get()});
    if (cancel_.IsCancelled()) return false;
    Json materials = Json::array();
    if (!reports) {
      if (summary["error"] == "") summary["error"] = "'" + built.name + "': " + reports.error().message;
      reports = std::vector<VLGD::BakeReport>();
    }
    for (const VLGD::BakeReport& report : *reports) {
      materials.push_back({{"id", report.material->Identity()},
                           {"name", report.material->GetName()},
                           {"baked", report.baked},
                           {"seconds", report.seconds},
                           {"colour", report.colour},
                           {"width", report.image->Width()},
                           {"height", report.image->Height()}});
      if (report.colour && built.texture == nullptr) built.texture = report.image;
    }
    // The page fetches a texture again only when its version moved: when it was baked anew.
    if (built.texture != nullptr) {
      const auto earlier = std::ranges::find(before, built.node, &BuiltTerrain::node);
      const std::lock_guard lock(versionMutex_);
      built.textureVersion =
          earlier != before.end() && earlier->texture == built.texture ? earlier->textureVersion : ++textureVersion_;
    }
    built.overlay["materials"] = std::move(materials);
    built.overlay["texture"] = built.texture == nullptr ? Json()
                                                        : Json{{"version", built.textureVersion},
                                                               {"width", built.texture->Width()},
                                                               {"height", built.texture->Height()}};
  }
  summary["bakeSeconds"] = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return true;
}

std::vector<BuiltTerrain> EditorSession::Built() {
  const std::lock_guard lock(versionMutex_);
  return built_;
}

Json EditorSession::BuildSummary() {
  const std::lock_guard lock(versionMutex_);
  Json summary = buildSummary_;
  summary["version"] = versions_.build;
  return summary;
}

Json EditorSession::ProgressState() {
  const std::lock_guard lock(versionMutex_);
  return {{"text", progressText_}, {"fraction", progressFraction_}};
}

Versions EditorSession::WaitForChange(const Versions& seen, std::chrono::milliseconds timeout) {
  std::unique_lock lock(versionMutex_);
  changed_.wait_for(lock, timeout, [&] {
    return closing_ || versions_.document != seen.document || versions_.build != seen.build ||
           versions_.progress != seen.progress;
  });
  return versions_;
}

}  // namespace editor
