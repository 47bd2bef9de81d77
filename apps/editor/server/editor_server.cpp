#include "editor_server.h"

#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <vector>

#include <httplib.h>

#include "editor_session.h"
#include "platform/document.h"
#include "platform/host.h"

namespace editor {

namespace {

constexpr std::size_t kMaxRequestBytes = 1 << 20;
constexpr auto kKeepAlive = std::chrono::seconds(15);
const char* const kCookie = "vellgrund";

// 128 random bits from the system's source, as hex.
std::string NewToken() {
  std::random_device device;
  std::ostringstream token;
  for (int i = 0; i < 4; ++i) {
    char word[9];
    std::snprintf(word, sizeof word, "%08x", static_cast<unsigned>(device()));
    token << word;
  }
  return token.str();
}

// Equal without telling by its timing how much of a guess was right.
bool SameToken(const std::string& given, const std::string& token) {
  if (given.size() != token.size()) return false;
  unsigned char difference = 0;
  for (std::size_t i = 0; i < token.size(); ++i) difference |= static_cast<unsigned char>(given[i] ^ token[i]);
  return difference == 0;
}

std::string CookieToken(const httplib::Request& request) {
  const std::string cookies = request.get_header_value("Cookie");
  const std::string key = std::string(kCookie) + "=";
  for (std::size_t at = 0; at < cookies.size();) {
    while (at < cookies.size() && (cookies[at] == ' ' || cookies[at] == ';')) ++at;
    const std::size_t end = std::min(cookies.find(';', at), cookies.size());
    if (cookies.compare(at, key.size(), key) == 0) return cookies.substr(at + key.size(), end - at - key.size());
    at = end;
  }
  return {};
}

// The HTTP library compresses replies of some types for clients that accept it, with
// Brotli at its slowest setting (0.4 s for three.js on loopback). Scripts and JSON are
// named so that it leaves them alone: on loopback, bytes cost nothing.
const char* const kJson = "application/json; charset=utf-8";

const char* ContentType(const std::filesystem::path& file) {
  const std::string ending = file.extension().string();
  if (ending == ".html") return "text/html; charset=utf-8";
  if (ending == ".js" || ending == ".mjs") return "application/javascript; charset=utf-8";
  if (ending == ".css") return "text/css; charset=utf-8";
  if (ending == ".png") return "image/png";
  if (ending == ".svg") return "image/svg+xml";
  if (ending == ".md" || ending == ".txt") return "text/plain; charset=utf-8";
  return "application/octet-stream";
}

void Reply(httplib::Response& response, int status, const Json& body) {
  response.status = status;
  response.set_content(body.dump(), kJson);
}

void Fail(httplib::Response& response, int status, const std::string& message) {
  Reply(response, status, {{"error", message}});
}

}  // namespace

struct EditorServer::Impl {
  std::unique_ptr<EditorSession> session;
  ServerOptions options;
  std::string token = NewToken();
  httplib::Server http;
  int port = 0;

  // Loopback names only, on our port: a page of another site that resolves its own name to
  // 127.0.0.1 (DNS rebinding) sends its own name and is refused.
  [[nodiscard]] bool OurHost(const std::string& host) const {
    const std::string suffix = ":" + std::to_string(port);
    return host == "127.0.0.1" + suffix || host == "localhost" + suffix;
  }

  [[nodiscard]] bool Allowed(const httplib::Request& request, std::string& why) const {
    if (!OurHost(request.get_header_value("Host"))) {
      why = "Unknown host.";
      return false;
    }
    if (request.has_header("Origin")) {
      const std::string origin = request.get_header_value("Origin");
      if (origin.rfind("http://", 0) != 0 || !OurHost(origin.substr(7))) {
        why = "Requests from other sites are refused.";
        return false;
      }
    }
    const std::string given = request.has_param("token")                ? request.get_param_value("token")
                              : request.has_header("X-Vellgrund-Token") ? request.get_header_value("X-Vellgrund-Token")
                                                                        : CookieToken(request);
    if (!SameToken(given, token)) {
      why = "A valid token is needed; open the address the editor printed.";
      return false;
    }
    return true;
  }

  static void ServeFile(const std::filesystem::path& folder, const std::filesystem::path& relative,
                        httplib::Response& response) {
    // Only plain names below the folder: no "..", no absolute paths.
    for (const auto& part : relative)
      if (part == ".." || part == "." || part.empty() || relative.is_absolute())
        return Fail(response, 404, "Not found.");
    const std::filesystem::path file = folder / relative;
    std::ifstream stream(file, std::ios::binary);
    if (!stream) return Fail(response, 404, "Not found.");
    response.set_content(std::string(std::istreambuf_iterator<char>(stream), {}), ContentType(file));
    response.set_header("Cache-Control", "no-cache");
  }

  void Routes() {
    http.set_payload_max_length(kMaxRequestBytes);
    http.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
      std::string why;
      if (Allowed(request, why)) return httplib::Server::HandlerResponse::Unhandled;
      Fail(response, 403, why);
      return httplib::Server::HandlerResponse::Handled;
    });
    http.set_post_routing_handler([](const httplib::Request&, httplib::Response& response) {
      response.set_header("X-Content-Type-Options", "nosniff");
      response.set_header("X-Frame-Options", "DENY");
    });

    http.Get("/", [this](const httplib::Request&, httplib::Response& response) {
      ServeFile(options.pageFolder, "index.html", response);
      // Modules and images load without the token in their address; the cookie carries it,
      // never to another site.
      response.set_header("Set-Cookie", std::string(kCookie) + "=" + token + "; Path=/; HttpOnly; SameSite=Strict");
    });
    http.Get(R"(/page/(.+))", [this](const httplib::Request& request, httplib::Response& response) {
      ServeFile(options.pageFolder, std::filesystem::path(request.matches[1].str()), response);
    });
    // The documentation that the help command opens.
    http.Get(R"(/docs/(.+))", [](const httplib::Request& request, httplib::Response& response) {
      ServeFile(platform::DocumentationFolder(), std::filesystem::path(request.matches[1].str()), response);
    });
    http.Get("/api/files", [this](const httplib::Request& request, httplib::Response& response) {
      auto listing = session->Files(request.get_param_value("folder"), request.get_param_value("all") == "1");
      if (!listing) return Fail(response, 403, listing.error().message);
      Reply(response, 200, *listing);
    });
    http.Get("/api/types",
             [this](const httplib::Request&, httplib::Response& response) { Reply(response, 200, session->Types()); });
    http.Get("/api/state",
             [this](const httplib::Request&, httplib::Response& response) { Reply(response, 200, session->State()); });
    http.Get("/api/build", [this](const httplib::Request&, httplib::Response& response) {
      Reply(response, 200, session->BuildSummary());
    });
    http.Get("/api/node", [this](const httplib::Request& request, httplib::Response& response) {
      const std::string id = request.get_param_value("id");
      char* end = nullptr;
      const unsigned long long identity = std::strtoull(id.c_str(), &end, 10);
      Json values = id.empty() || *end != '\0' ? Json() : session->NodeValues(identity);
      if (values.is_null()) return Fail(response, 404, "No node " + id.substr(0, 40) + ".");
      Reply(response, 200, values);
    });
    // The heights of one terrain of the last build as little-endian float32, row after
    // row; the build summary gives the shape.
    http.Get("/api/heights", [this](const httplib::Request& request, httplib::Response& response) {
      const std::string id = request.get_param_value("terrain");
      for (const BuiltTerrain& terrain : session->Built()) {
        if (std::to_string(terrain.node) != id) continue;
        const auto values = terrain.heights->Values();
        std::string bytes(values.size() * sizeof(float), '\0');
        for (std::size_t i = 0; i < values.size(); ++i) {
          const float value = static_cast<float>(values[i]);
          std::memcpy(bytes.data() + i * sizeof(float), &value, sizeof(float));
        }
        response.set_header("X-Columns", std::to_string(terrain.heights->Width()));
        response.set_header("X-Rows", std::to_string(terrain.heights->Height()));
        response.set_content(std::move(bytes), "application/octet-stream");
        return;
      }
      Fail(response, 404, "No built terrain " + id.substr(0, 40) + ".");
    });
    // The bake of a terrain's first colour material as 8-bit sRGB RGB, row 0 at the grid's
    // last row; the build summary gives its version, which X-Version repeats.
    http.Get("/api/texture", [this](const httplib::Request& request, httplib::Response& response) {
      const std::string id = request.get_param_value("terrain");
      for (const BuiltTerrain& terrain : session->Built()) {
        if (std::to_string(terrain.node) != id) continue;
        if (terrain.texture == nullptr) break;
        const auto bytes = terrain.texture->Bytes();
        response.set_header("X-Width", std::to_string(terrain.texture->Width()));
        response.set_header("X-Height", std::to_string(terrain.texture->Height()));
        response.set_header("X-Version", std::to_string(terrain.textureVersion));
        response.set_content(reinterpret_cast<const char*>(bytes.data()), bytes.size(), "application/octet-stream");
        return;
      }
      Fail(response, 404, "No baked colour material for terrain " + id.substr(0, 40) + ".");
    });
    http.Post("/api/edit", [this](const httplib::Request& request, httplib::Response& response) {
      if (request.get_header_value("Content-Type").rfind("application/json", 0) != 0)
        return Fail(response, 415, "Edits are sent as application/json.");
      Json body = Json::parse(request.body, nullptr, false);
      if (body.is_discarded()) return Fail(response, 400, "The request is not JSON.");
      auto reply = session->Apply(body);
      if (!reply) return Fail(response, 400, reply.error().message);
      Reply(response, 200, *reply);
    });
    // Server-sent events: "document" after an edit, "progress" while a build runs, "build"
    // when one finished, a comment now and then to keep the connection open.
    http.Get("/api/events", [this](const httplib::Request&, httplib::Response& response) {
      response.set_header("Cache-Control", "no-cache");
      auto seen = std::make_shared<Versions>();
      response.set_chunked_content_provider(
          "text/event-stream", [this, seen, first = true](std::size_t, httplib::DataSink& sink) mutable {
            const Versions now = first ? Versions{} : session->WaitForChange(*seen, kKeepAlive);
            if (!sink.is_writable() || session->Closing()) return false;
            std::string events;
            const auto event = [&](const char* name, const Json& data) {
              events += std::string("event: ") + name + "\ndata: " + data.dump() + "\n\n";
            };
            if (first) {
              event("document", {{"version", 0}});
              event("build", session->BuildSummary());
              first = false;
            } else {
              if (now.document != seen->document) event("document", {{"version", now.document}});
              if (now.progress != seen->progress) event("progress", session->ProgressState());
              if (now.build != seen->build) event("build", session->BuildSummary());
              if (events.empty()) events = ": still here\n\n";
              *seen = now;
            }
            return sink.write(events.data(), events.size());
          });
    });
  }
};

EditorServer::EditorServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

EditorServer::~EditorServer() {
  Stop();
}

platform::Result<std::unique_ptr<EditorServer>> EditorServer::Create(platform::Host& host,
                                                                     std::unique_ptr<platform::Document> document,
                                                                     ServerOptions options) {
  if (!std::filesystem::is_regular_file(options.pageFolder / "index.html"))
    return std::unexpected(platform::IoError("The editor's page is missing: no index.html in \"" +
                                             options.pageFolder.string() + "\". Build the project first.")
                               .error());
  auto impl = std::make_unique<Impl>();
  impl->options = std::move(options);
  impl->session =
      std::make_unique<EditorSession>(host, std::move(document), impl->options.scene, impl->options.folders);
  impl->Routes();
  impl->port = impl->options.port == 0
                   ? impl->http.bind_to_any_port("127.0.0.1")
                   : (impl->http.bind_to_port("127.0.0.1", impl->options.port) ? impl->options.port : -1);
  if (impl->port <= 0)
    return std::unexpected(
        platform::IoError("Could not listen on 127.0.0.1:" + std::to_string(impl->options.port) + ".").error());
  return std::unique_ptr<EditorServer>(new EditorServer(std::move(impl)));
}

std::string EditorServer::Address() const {
  return "http://127.0.0.1:" + std::to_string(impl_->port) + "/?token=" + impl_->token;
}

int EditorServer::Port() const {
  return impl_->port;
}

const std::string& EditorServer::Token() const {
  return impl_->token;
}

EditorSession& EditorServer::Session() {
  return *impl_->session;
}

platform::Status EditorServer::Run() {
  if (!impl_->http.listen_after_bind()) return platform::IoError("The editor's server stopped unexpectedly.");
  return platform::Ok();
}

void EditorServer::Stop() {
  impl_->session->Close();
  impl_->http.stop();
}

std::filesystem::path DefaultPageFolder() {
  if (const char* folder = std::getenv("VELLGRUND_EDITOR_DIR"); folder != nullptr && *folder != '\0') return folder;
  std::error_code error;
  const std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return "editor";
  // build/<preset>/apps/cli/vellgrund and build/<preset>/tests/...: the page is in build/<preset>/editor.
  for (std::filesystem::path folder = executable.parent_path(); !folder.empty() && folder != folder.root_path();
       folder = folder.parent_path())
    if (std::filesystem::is_regular_file(folder / "editor" / "index.html")) return folder / "editor";
  return executable.parent_path() / "editor";
}

}  // namespace editor
