#include "platform/scene_codec.h"

#include <string>
#include <utility>
#include <vector>

#include "platform/strings.h"

namespace platform::scene_internal {
namespace {

class StrictJsonBuilder final : public nlohmann::json_sax<Json> {
 public:
  bool null() override { return Add(Json(nullptr)); }
  bool boolean(bool value) override { return Add(Json(value)); }
  bool number_integer(number_integer_t value) override { return Add(Json(value)); }
  bool number_unsigned(number_unsigned_t value) override { return Add(Json(value)); }
  bool number_float(number_float_t value, const string_t&) override { return Add(Json(value)); }
  bool string(string_t& value) override { return Add(Json(std::move(value))); }
  bool binary(binary_t&) override { return Fail(Path(true) + "binary data"); }
  bool start_object(std::size_t) override { return Open(Json::object()); }
  bool start_array(std::size_t) override { return Open(Json::array()); }
  bool end_object() override { return Close(); }
  bool end_array() override { return Close(); }

  bool key(string_t& key) override {
    if (open_.back().container->contains(key)) return Fail(Path(false) + "duplicate key '" + Excerpt(key) + "'");
    open_.back().key = std::move(key);
    return true;
  }

  bool parse_error(std::size_t, const std::string&, const Json::exception& error) override {
    // "[json.exception.parse_error.101] parse error at line 1, column 2: ...": the tag
    // means nothing to users, the position does.
    const std::string_view text = error.what();
    const std::size_t tagEnd = text.starts_with('[') ? text.find("] ") : std::string_view::npos;
    error_ = Path(true);
    error_ += tagEnd != std::string_view::npos ? text.substr(tagEnd + 2) : text;
    return false;
  }

  [[nodiscard]] const Json& Root() const { return root_; }
  [[nodiscard]] const std::string& ErrorText() const { return error_; }

 private:
  struct OpenContainer {
    Json* container;
    std::string key;  // of the value that comes next, in an object
  };

  bool Add(Json&& value) {
    Place(std::move(value));
    Done();
    return true;
  }

  // A value of the innermost open container is complete: its key no longer names a place.
  void Done() {
    if (!open_.empty()) open_.back().key.clear();
  }

  Json* Place(Json&& value) {
    if (open_.empty()) {
      root_ = std::move(value);
      return &root_;
    }
    OpenContainer& top = open_.back();
    if (top.container->is_array()) {
      auto& array = top.container->get_ref<Json::array_t&>();
      array.push_back(std::move(value));
      return &array.back();
    }
    auto& object = top.container->get_ref<Json::object_t&>();
    return &object.emplace(top.key, std::move(value)).first->second;  // the key stays for paths
  }

  bool Open(Json&& container) {
    if (open_.size() >= kMaxJsonDepth)
      return Fail(Path(true) + "nested deeper than " + std::to_string(kMaxJsonDepth) + " levels");
    // Containers only ever grow at their end, and an open container is the last element
    // of its parent until it closes, so these pointers stay valid.
    Json* placed = Place(std::move(container));
    open_.push_back({placed, {}});
    return true;
  }

  bool Close() {
    open_.pop_back();
    Done();
    return true;
  }

  // "objects[0].children[1]: ", the place of the open container; with `next` the place of
  // the value that comes next in it. Empty at the top level.
  [[nodiscard]] std::string Path(bool next) const {
    std::string path;
    const std::size_t count = next ? open_.size() : (open_.empty() ? 0 : open_.size() - 1);
    for (std::size_t i = 0; i < count; ++i) {
      const Json& container = *open_[i].container;
      const bool last = i + 1 == open_.size();
      if (container.is_array()) {
        path += '[';
        path += std::to_string(last ? container.size() : container.size() - 1);
        path += ']';
      } else if (!open_[i].key.empty()) {
        if (!path.empty()) path += '.';
        path += open_[i].key;
      }
    }
    return path.empty() ? path : path + ": ";
  }

  bool Fail(std::string message) {
    error_ = std::move(message);
    return false;
  }

  Json root_;
  std::vector<OpenContainer> open_;
  std::string error_;
};

}  // namespace

Result<Json> ParseStrictJson(std::string_view text) {
  StrictJsonBuilder builder;
  if (!Json::sax_parse(text, &builder)) return IllegalArgumentError(builder.ErrorText());
  return builder.Root();
}

void AppendPretty(const OrderedJson& value, std::size_t indent, std::string& out) {
  const auto open = [&](char bracket) {
    out += bracket;
    out += '\n';
  };
  const auto close = [&](char bracket) {
    out += '\n';
    out.append(indent, ' ');
    out += bracket;
  };
  const bool structured =
      std::any_of(value.begin(), value.end(), [](const OrderedJson& v) { return v.is_structured(); });
  if (value.is_object() && !value.empty()) {
    open('{');
    for (auto member = value.begin(); member != value.end(); ++member) {
      if (member != value.begin()) out += ",\n";
      out.append(indent + 2, ' ');
      out += OrderedJson(member.key()).dump();
      out += ": ";
      AppendPretty(member.value(), indent + 2, out);
    }
    close('}');
  } else if (value.is_array() && structured) {
    open('[');
    for (auto element = value.begin(); element != value.end(); ++element) {
      if (element != value.begin()) out += ",\n";
      out.append(indent + 2, ' ');
      AppendPretty(*element, indent + 2, out);
    }
    close(']');
  } else if (value.is_array()) {
    out += '[';
    for (auto element = value.begin(); element != value.end(); ++element) {
      if (element != value.begin()) out += ", ";
      out += element->dump();
    }
    out += ']';
  } else {
    out += value.dump();
  }
}

}  // namespace platform::scene_internal
