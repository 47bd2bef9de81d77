#include "editor_server.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "editor_session.h"
#include "main/default_scene.h"
#include "main/vellgrund_module.h"
#include "platform/scene_file.h"
#include "support/temp_dir.h"

namespace {

using editor::Json;

// A served default landscape at a small resolution, and a client that speaks to it.
class EditorServerTest : public testing::Test {
 protected:
  void SetUp() override {
    host_.SetConsole(console_);
    ASSERT_TRUE(VLGD::StartModule(host_));
    std::ofstream(dir_.File("index.html")) << "<!doctype html><title>test</title>";
    auto doc = platform::LoadScene(host_, VLGD::kDefaultScene, "default");
    ASSERT_TRUE(doc);
    platform::Node* terrain = (*doc)->FindByName("Terrain");
    ASSERT_TRUE((*doc)->SetParameter(*terrain, 10002, platform::Int32{40}));
    ASSERT_TRUE((*doc)->SetParameter(*terrain, 10003, platform::Int32{30}));
    auto server = editor::EditorServer::Create(host_, std::move(*doc), {.pageFolder = dir_.Path()});
    ASSERT_TRUE(server) << server.error().message;
    server_ = std::move(*server);
    serving_ = std::thread([this] { (void)server_->Run(); });
    client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->Port());
    client_->set_default_headers({{"X-Vellgrund-Token", server_->Token()}});
    for (int i = 0; i < 100 && !client_->Get("/api/state"); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  void TearDown() override {
    if (server_) server_->Stop();
    if (serving_.joinable()) serving_.join();
  }

  Json Get(const std::string& path) {
    auto reply = client_->Get(path.c_str());
    EXPECT_TRUE(reply && reply->status == 200) << path;
    return reply ? Json::parse(reply->body, nullptr, false) : Json();
  }
  httplib::Result Edit(const std::string& body) { return client_->Post("/api/edit", body, "application/json"); }
  // The first build, once it finished.
  Json Built() {
    for (int i = 0; i < 1000; ++i) {
      Json build = Get("/api/build");
      if (build.value("version", 0) > 0) return build;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return Json();
  }

  platform::Host host_;
  platform::CollectingConsole console_;
  testing_support::TempDir dir_;
  std::unique_ptr<editor::EditorServer> server_;
  std::thread serving_;
  std::unique_ptr<httplib::Client> client_;
};

// Only our own page, with the token, at our own address is served.
TEST_F(EditorServerTest, RequestsWithoutTheTokenOrFromElsewhereAreRefused) {
  const std::string port = std::to_string(server_->Port());
  httplib::Client bare("127.0.0.1", server_->Port());
  EXPECT_EQ(bare.Get("/api/state")->status, 403);
  EXPECT_EQ(bare.Get("/api/state?token=0123")->status, 403);
  EXPECT_EQ(bare.Get(("/api/state?token=" + server_->Token()).c_str())->status, 200);
  EXPECT_EQ(bare.Get("/api/state", {{"Cookie", "vellgrund=" + server_->Token()}})->status, 200);
  // A rebinding site reaches 127.0.0.1 under its own name; a page of another site sends its Origin.
  EXPECT_EQ(client_->Get("/api/state", {{"Host", "evil.example:" + port}})->status, 403);
  EXPECT_EQ(client_->Get("/api/state", {{"Origin", "http://evil.example"}})->status, 403);
  EXPECT_EQ(client_->Get("/api/state", {{"Origin", "http://localhost:" + port}})->status, 200);
  EXPECT_EQ(client_->Get("/page/../../etc/passwd")->status, 404);
  EXPECT_EQ(client_->Get("/page/%2e%2e/secret")->status, 404);
  // The page itself hands the token on to its modules in a cookie of this site only.
  const auto page = bare.Get(("/?token=" + server_->Token()).c_str());
  ASSERT_TRUE(page && page->status == 200);
  EXPECT_NE(page->get_header_value("Set-Cookie").find("SameSite=Strict"), std::string::npos);
}

TEST_F(EditorServerTest, BadRequestsAreRefusedAndChangeNothing) {
  const Json before = Get("/api/state");
  const std::string terrain = std::to_string(before["tree"][0]["id"].get<int>());
  const std::string huge =
      R"({"action": "rename", "node": )" + terrain + R"(, "name": ")" + std::string(2 << 20, 'x') + "\"}";
  for (const auto& [body, status] : std::vector<std::pair<std::string, int>>{
           {"{not json", 400},
           {"[1, 2]", 400},
           {R"({"action": 7})", 400},
           {R"({"action": "explode"})", 400},
           {R"({"action": "set", "node": )" + terrain + R"(, "parameter": 10002, "value": "many"})", 400},
           {R"({"action": "set", "node": )" + terrain + R"(, "parameter": 1, "value": 1})", 400},
           {R"({"action": "set", "node": 424242, "parameter": 1001, "value": 1})", 400},
           {R"({"action": "set", "node": -1, "parameter": 1001, "value": 1})", 400},
           {R"({"action": "move", "node": )" + terrain + R"(, "parent": )" + terrain + "}", 400},
           {R"({"action": "insert", "type": "onothing"})", 400},
           {R"({"action": "command", "command": 1054744, "modifier": "yes"})", 200},
           {huge, 413}}) {
    const auto reply = Edit(body);
    ASSERT_TRUE(reply) << body.substr(0, 80);
    EXPECT_EQ(reply->status, status) << body.substr(0, 80) << ": " << reply->body.substr(0, 200);
    if (status == 400) {
      EXPECT_TRUE(Json::parse(reply->body, nullptr, false).contains("error"));
    }
  }
  EXPECT_EQ(client_->Post("/api/edit", "{}", "text/plain")->status, 415);
  // The one accepted command (Group with nothing selected does nothing) left no change.
  Json after = Get("/api/state");
  EXPECT_EQ(after["tree"], before["tree"]);
}

TEST_F(EditorServerTest, EditsUndoAndHeightsTravelAsFloats) {
  const Json first = Built();
  ASSERT_EQ(first["terrains"].size(), 1u);
  const Json& terrain = first["terrains"][0];
  EXPECT_EQ(terrain["columns"], 41);
  EXPECT_EQ(terrain["rows"], 31);
  const auto heights = client_->Get(("/api/heights?terrain=" + std::to_string(terrain["id"].get<int>())).c_str());
  ASSERT_TRUE(heights && heights->status == 200);
  EXPECT_EQ(heights->body.size(), 41u * 31u * sizeof(float));

  const std::string hills = std::to_string(server_->Session().State()["tree"][0]["children"][0]["id"].get<int>());
  ASSERT_EQ(Get("/api/node?id=" + hills)["name"], "Rolling hills");
  const auto strength = [&] { return Get("/api/node?id=" + hills)["values"]["1001"]["value"]; };
  const auto set = [&](const std::string& request) {
    const auto reply = Edit(request);
    return reply ? reply->status : 0;
  };
  const Json original = strength();
  ASSERT_EQ(set(R"({"action": "set", "node": )" + hills + R"(, "parameter": 1001, "value": 0.25})"), 200);
  EXPECT_EQ(strength(), 0.25);
  EXPECT_EQ(Get("/api/state")["undo"], 1);
  ASSERT_EQ(set(R"({"action": "undo"})"), 200);
  EXPECT_EQ(strength(), original);
  ASSERT_EQ(set(R"({"action": "redo"})"), 200);
  EXPECT_EQ(strength(), 0.25);
  EXPECT_EQ(client_->Get("/api/node?id=nothing")->status, 404);
}

// Materials and shaders in the tree, placed only where they belong; the terrain's bake served
// as bytes and baked again only when what it reads changed.
TEST_F(EditorServerTest, MaterialsShadersAndBakes) {
  Built();
  const auto edit = [&](const Json& request) {
    const auto reply = Edit(request.dump());
    EXPECT_TRUE(reply && reply->status == 200) << request.dump() << ": " << (reply ? reply->body : "");
    return reply ? Json::parse(reply->body, nullptr, false) : Json();
  };
  // The first build that has every edit so far in it.
  const auto rebuilt = [&] {
    const int edits = Get("/api/state")["version"];
    for (int i = 0; i < 1000; ++i) {
      Json build = Get("/api/build");
      if (build.value("document", 0) >= edits) return build["terrains"][0];
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return Json();
  };
  const Json tree = Get("/api/state")["tree"];
  const std::uint64_t terrain = tree[0]["id"], hills = tree[0]["children"][0]["id"];
  const std::uint64_t paint = edit({{"action", "insert"}, {"type", "Mmaterial"}})["id"];
  const std::uint64_t snow = edit({{"action", "insert"}, {"type", "Mmaterial"}})["id"];
  const std::uint64_t colour = edit({{"action", "insert"}, {"type", "xcolourshader"}, {"parent", paint}})["id"];
  const std::uint64_t white = edit({{"action", "insert"}, {"type", "xcolourshader"}, {"parent", snow}})["id"];
  const std::uint64_t high =
      edit({{"action", "insert"}, {"type", "xheightshader"}, {"parent", white}, {"mask", true}})["id"];
  const std::uint64_t reader = edit({{"action", "insert"}, {"type", "xterrainoperatorshader"}, {"parent", snow}})["id"];
  edit({{"action", "set"}, {"node", colour}, {"parameter", 10001}, {"value", {1.0, 0.5, 0.0}}});
  edit({{"action", "set"}, {"node", reader}, {"parameter", 10001}, {"value", hills}});
  edit({{"action", "set"}, {"node", snow}, {"parameter", 2003}, {"value", true}});  // a mask

  const Json materials = Get("/api/state")["materials"];
  ASSERT_EQ(materials.size(), 2u);
  EXPECT_EQ(materials[0]["children"][0]["id"], colour);
  EXPECT_EQ(materials[1]["children"][0]["children"][0]["id"], high);
  EXPECT_EQ(materials[1]["children"][0]["children"][0]["mask"], true);
  EXPECT_EQ(Get("/api/types")["nodeTypes"]["xcolourshader"]["name"], "Colour");

  for (const Json& request : std::vector<Json>{
           {{"action", "insert"}, {"type", "xcolourshader"}},
           {{"action", "insert"}, {"type", "xcolourshader"}, {"parent", terrain}},
           {{"action", "insert"}, {"type", "Mmaterial"}, {"parent", terrain}},
           {{"action", "insert"}, {"type", "Mmaterial"}, {"before", colour}},
           {{"action", "insert"}, {"type", "onoiseoperator"}, {"parent", paint}},
           {{"action", "move"}, {"node", colour}, {"parent", terrain}},
           {{"action", "move"}, {"node", hills}, {"before", colour}},
           {{"action", "move"}, {"node", snow}, {"parent", paint}},
           {{"action", "materials"}, {"node", terrain}, {"nodes", {paint, colour}}},
           {{"action", "materials"}, {"node", terrain}, {"nodes", {paint, paint}}},
           {{"action", "materials"}, {"node", hills}, {"nodes", Json::array({paint})}},
           {{"action", "set"}, {"node", reader}, {"parameter", 10001}, {"value", terrain}},
           {{"action", "set"}, {"node", reader}, {"parameter", 10001}, {"value", paint}},
       }) {
    const auto reply = Edit(request.dump());
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 400) << request.dump();
  }
  // A command that does not apply to a selected shader is refused, not run there.
  edit({{"action", "select"}, {"nodes", Json::array({colour})}});
  EXPECT_EQ(Edit(R"({"action": "command", "command": 1054797})")->status, 400);
  EXPECT_EQ(Get("/api/state")["materials"], materials);

  // Shaders move within the materials; a material moves before another.
  edit({{"action", "move"}, {"node", snow}, {"before", paint}});
  EXPECT_EQ(Get("/api/state")["materials"][0]["id"], snow);

  const int undo = Get("/api/state")["undo"];
  edit({{"action", "materials"}, {"node", terrain}, {"nodes", {paint, snow}}});
  EXPECT_EQ(Get("/api/state")["undo"], undo + 1);
  EXPECT_EQ(Get("/api/node?id=" + std::to_string(terrain))["materials"][1]["id"], snow);
  const auto bakes = [](const Json& built) {
    std::vector<bool> baked;
    for (const Json& material : built["materials"]) baked.push_back(material["baked"]);
    return baked;
  };
  Json built = rebuilt();
  EXPECT_EQ(bakes(built), (std::vector<bool>{true, true}));
  ASSERT_TRUE(built["texture"].is_object());
  const auto texture = client_->Get("/api/texture?terrain=" + std::to_string(terrain));
  ASSERT_TRUE(texture && texture->status == 200);
  EXPECT_EQ(texture->body.size(), 41u * 31u * 3u);
  EXPECT_EQ(texture->get_header_value("X-Version"), std::to_string(built["texture"]["version"].get<int>()));
  for (std::size_t i = 0; i < texture->body.size(); i += 3) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(texture->body[i + k]); };
    ASSERT_TRUE(byte(0) == 255 && std::abs(byte(1) - 128) <= 1 && byte(2) == 0) << i;
  }
  const Json version = built["texture"]["version"];

  // What each material reads decides which one bakes again: the heights and the operator for
  // the snow, its own colour for the paint.
  edit({{"action", "set"}, {"node", hills}, {"parameter", 1001}, {"value", 0.3}});
  built = rebuilt();
  EXPECT_EQ(bakes(built), (std::vector<bool>{false, true}));
  EXPECT_EQ(built["texture"]["version"], version);
  edit({{"action", "set"}, {"node", colour}, {"parameter", 10001}, {"value", {0.2, 0.5, 0.0}}});
  built = rebuilt();
  EXPECT_EQ(bakes(built), (std::vector<bool>{true, false}));
  EXPECT_NE(built["texture"]["version"], version);

  // With only a mask the mesh has no texture to fetch.
  edit({{"action", "materials"}, {"node", terrain}, {"nodes", Json::array({snow})}});
  EXPECT_TRUE(rebuilt()["texture"].is_null());
  EXPECT_EQ(client_->Get("/api/texture?terrain=" + std::to_string(terrain))->status, 404);
}

}  // namespace

namespace {

// The session behind the page: files only in its folders, dialogs answered through the page,
// preferences stored where the tools read them, field lists by node identity.
TEST(EditorSession, FilesDialogsPreferencesAndFieldLists) {
  testing_support::TempDir dir;
  ASSERT_EQ(::setenv("XDG_CONFIG_HOME", dir.Path().c_str(), 1), 0);
  platform::Host host;
  platform::CollectingConsole console;
  host.SetConsole(console);
  ASSERT_TRUE(VLGD::StartModule(host));
  const std::filesystem::path scene = dir.File("scene.json");
  {
    auto doc = platform::LoadScene(host, VLGD::kDefaultScene, "default");
    ASSERT_TRUE(doc);
    ASSERT_TRUE((*doc)->SetParameter(*(*doc)->FindByName("Terrain"), 10002, platform::Int32{40}));
    ASSERT_TRUE(platform::SaveSceneFile(**doc, scene));
  }
  std::filesystem::create_directory_symlink("/", dir.File("escape"));
  auto loaded = platform::LoadSceneFile(host, scene);
  ASSERT_TRUE(loaded);
  editor::EditorSession session(host, std::move(*loaded), scene);
  const auto apply = [&](Json request) { return session.Apply(request); };
  const auto refused = [&](const Json& request, const std::string& words) {
    const auto reply = apply(request);
    EXPECT_FALSE(reply) << request.dump();
    if (!reply) {
      EXPECT_NE(reply.error().message.find(words), std::string::npos) << reply.error().message;
    }
  };

  // Only the scene's folder is reachable, links resolved.
  const auto roots = session.Files("", false);
  ASSERT_TRUE(roots);
  EXPECT_EQ((*roots)["entries"].size(), 1u);
  for (const std::string& outside :
       std::vector<std::string>{"/etc", (dir.Path() / "..").string(), dir.File("escape").string() + "/etc"})
    EXPECT_FALSE(session.Files(outside, true)) << outside;
  const auto listing = session.Files(dir.Path().string(), false);
  ASSERT_TRUE(listing);
  EXPECT_EQ((*listing)["entries"].back()["name"], "scene.json");
  EXPECT_EQ((*listing)["parent"], "");

  // Save as: inside only, never over another file unasked; open reads it back.
  const std::string copy = dir.File("copy.json").string();
  refused({{"action", "save"}, {"file", "/tmp/vellgrund-outside.json"}}, "outside the folders");
  refused({{"action", "save"}, {"file", dir.File("escape").string() + "/tmp/x.json"}}, "outside the folders");
  ASSERT_TRUE(apply({{"action", "save"}, {"file", copy}}));
  refused({{"action", "save"}, {"file", scene.string()}}, "exists; save again to overwrite it");
  ASSERT_TRUE(apply({{"action", "save"}, {"file", scene.string()}, {"overwrite", true}}));
  ASSERT_TRUE(apply({{"action", "open"}, {"file", copy}}));
  EXPECT_EQ(session.State()["scene"], copy);
  refused({{"action", "open"}, {"file", dir.File("missing.json").string()}}, "missing.json");

  // The export button asks for a file through the page, and writes only inside.
  const Json tree = session.State()["tree"];
  const std::uint64_t terrain = tree[0]["id"];
  const Json exportButton = {{"action", "button"}, {"node", terrain}, {"parameter", 10091}};
  const auto asked = apply(exportButton);
  ASSERT_TRUE(asked);
  EXPECT_EQ((*asked)["dialog"]["suffix"], "tif");
  EXPECT_NE((*asked)["dialog"]["name"].get<std::string>().find("Terrain_"), std::string::npos);
  Json withFile = exportButton;
  withFile["file"] = dir.File("heights.tif").string();
  ASSERT_TRUE(apply(withFile));
  EXPECT_TRUE(std::filesystem::is_regular_file(dir.File("heights.tif")));
  withFile["file"] = "/tmp/vellgrund-outside.tif";
  refused(withFile, "outside the folders");
  const Json exportMesh = {{"action", "export"}, {"node", terrain}, {"file", dir.File("terrain.glb").string()}};
  ASSERT_TRUE(apply(exportMesh));
  EXPECT_GT(std::filesystem::file_size(dir.File("terrain.glb")), 40u * 31u * 12u);
  refused(exportMesh, "exists; export again to overwrite it");
  const auto about = apply({{"action", "command"}, {"command", 1054744}});
  ASSERT_TRUE(about);
  EXPECT_NE((*about)["messages"][0].get<std::string>().find("Vellgrund"), std::string::npos);

  // Preferences: saved in the configuration folder, applied to the terrains at once.
  refused({{"action", "preferences"}, {"maxResolution", 0}}, "maximum resolution");
  ASSERT_TRUE(apply({{"action", "preferences"}, {"maxResolution", 20}, {"showOverlay", false}}));
  EXPECT_TRUE(std::filesystem::is_regular_file(dir.File("vellgrund/preferences.json")));
  EXPECT_EQ(session.NodeValues(terrain)["values"]["10002"]["value"], 20);
  EXPECT_EQ(session.State()["preferences"]["showOverlay"], false);

  // Field lists name field objects by identity; anything else is refused.
  const auto field = apply({{"action", "insert"}, {"type", "fspherical"}});
  ASSERT_TRUE(field);
  const std::uint64_t hills = tree[0]["children"][0]["id"];
  const Json layers = {
      {"layers", {{{"field", (*field)["id"]}, {"opacity", 0.5}, {"blend", "MAX"}, {"enabled", true}}}}};
  ASSERT_TRUE(apply({{"action", "set"}, {"node", hills}, {"parameter", 3001}, {"value", layers}}));
  EXPECT_EQ(session.NodeValues(hills)["values"]["3001"]["value"], layers);
  refused({{"action", "set"}, {"node", hills}, {"parameter", 3001}, {"value", {{"layers", {{{"field", terrain}}}}}}},
          "no field object");
  refused({{"action", "set"}, {"node", hills}, {"parameter", 3001}, {"value", {{"layers", {{{"blend", "SOME"}}}}}}},
          "the blend is");
  EXPECT_EQ(session.NodeValues(hills)["values"]["3001"]["value"], layers);
  ::unsetenv("XDG_CONFIG_HOME");
}

}  // namespace
