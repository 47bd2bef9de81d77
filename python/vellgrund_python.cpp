// The vellgrund Python module: live documents, their nodes and parameters, the editor's
// commands with undo, builds that hand back NumPy arrays, the registry and the noise
// library. Errors become Python exceptions at one place, Raise().

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include <unistd.h>

#include "main/default_scene.h"
#include "main/vellgrund_module.h"
#include "object/terrainobject.h"
#include "platform/command.h"
#include "platform/document.h"
#include "platform/host.h"
#include "platform/material.h"
#include "platform/noise.h"
#include "platform/parallel.h"
#include "platform/scene_file.h"
#include "shader/bake.h"
#include "vellgrund/baseterrainoperator.h"

namespace py = pybind11;
using platform::Document;
using platform::Int32;
using platform::Node;

namespace {

py::object& ErrorType() {
  static py::object type;
  return type;
}

// The one place where the system's errors become Python exceptions, with the exact text.
[[noreturn]] void Raise(const platform::Error& error) {
  PyObject* type = ErrorType().ptr();
  switch (error.kind) {
    case platform::ErrorKind::IllegalArgument:
      type = PyExc_ValueError;
      break;
    case platform::ErrorKind::OutOfMemory:
      type = PyExc_MemoryError;
      break;
    case platform::ErrorKind::Cancelled:
      type = PyExc_KeyboardInterrupt;
      break;
    default:
      break;
  }
  PyErr_SetString(type, error.message.c_str());
  throw py::error_already_set();
}

template <class T>
T Check(platform::Result<T> result) {
  if (!result) Raise(result.error());
  if constexpr (!std::is_void_v<T>) return std::move(*result);
}

// The application every document of the process shares; built once, at import. It lives
// until the process ends, after the last document, whatever order Python frees them in.
platform::Host& TheHost() {
  static platform::Host* host = [] {
    auto* created = new platform::Host();
    static platform::CollectingConsole console;  // editors' console; errors reach Python instead
    created->SetConsole(console);
    Check(VLGD::StartModule(*created, platform::ResourceFolder(), VLGD::IconUse::CHECK_ONLY));
    return created;
  }();
  return *host;
}

struct DocumentHolder {
  std::unique_ptr<Document> doc;
};
using DocumentRef = std::shared_ptr<DocumentHolder>;

// A node as Python holds it: by identity, so that a removed node fails by name instead of
// pointing into freed memory.
struct PyNode {
  DocumentRef owner;
  platform::UInt64 identity = 0;

  [[nodiscard]] Node& Get() const {
    Node* node = owner->doc->FindByIdentity(identity);
    if (node == nullptr) throw py::value_error("The node is no longer in its document.");
    return *node;
  }
  bool operator==(const PyNode& other) const { return owner == other.owner && identity == other.identity; }
};

std::optional<PyNode> Wrap(const DocumentRef& owner, const Node* node) {
  if (node == nullptr) return std::nullopt;
  return PyNode{owner, node->Identity()};
}

py::object Json() { return py::module_::import("json"); }

const platform::ParameterDescription& FindParameter(const Node& node, const py::object& key) {
  const platform::FlatDescription& description = node.GetTypeInfo().description;
  const platform::ParameterDescription* found = nullptr;
  if (py::isinstance<py::int_>(key)) {
    found = description.Find(key.cast<Int32>());
  } else if (py::isinstance<py::str>(key)) {
    found = description.FindSymbol(key.cast<std::string>());
  } else {
    throw py::type_error("A parameter is named by its symbol (str) or its ID (int).");
  }
  if (found == nullptr || found->kind != platform::ParameterKind::VALUE)
    throw py::key_error("'" + node.GetTypeInfo().resourceName + "' has no parameter " + py::repr(key).cast<std::string>());
  return *found;
}

py::object GetParameter(const PyNode& self, const py::object& key) {
  const Node& node = self.Get();
  const platform::ParameterDescription& parameter = FindParameter(node, key);
  if (parameter.type == platform::ValueType::LINK) {
    const platform::Value* value = node.GetData().Find(parameter.id);
    const Node* target = value != nullptr ? self.owner->doc->Resolve(std::get<platform::NodeLink>(value->Data())) : nullptr;
    return py::cast(Wrap(self.owner, target));
  }
  if (parameter.type == platform::ValueType::LINKLIST) {
    py::list nodes;
    if (const platform::NodeLinkList* links = node.GetData().GetLinkList(parameter.id))
      for (const platform::UInt64 target : links->targets)
        nodes.append(py::cast(Wrap(self.owner, self.owner->doc->Resolve(platform::NodeLink{target}))));
    return nodes;
  }
  py::object value = Json().attr("loads")(Check(platform::WriteParameterValue(node, parameter)));
  if (parameter.type == platform::ValueType::VECTOR && py::isinstance<py::list>(value)) return py::tuple(value);
  if (parameter.type == platform::ValueType::CURVE && py::isinstance<py::dict>(value))
    return value.attr("get")("knots", value);
  if (parameter.type == platform::ValueType::SPLINEPATH && py::isinstance<py::dict>(value))
    return value.attr("get")("points", value);
  return value;
}

const PyNode& NodeArgument(const py::handle& value, const platform::ParameterDescription& parameter) {
  try {
    return value.cast<const PyNode&>();
  } catch (const py::cast_error&) {
    throw py::type_error(parameter.symbol + " links nodes; " + py::repr(value).cast<std::string>() + " is not one.");
  }
}

void SetParameter(const PyNode& self, const py::object& key, const py::object& value) {
  Node& node = self.Get();
  const platform::ParameterDescription& parameter = FindParameter(node, key);
  if (parameter.readOnly) throw py::value_error(parameter.symbol + " is shown, not edited.");
  platform::Value converted;
  if (parameter.type == platform::ValueType::LINK) {
    platform::NodeLink link;
    if (!value.is_none()) {
      const PyNode& target = NodeArgument(value, parameter);
      if (target.owner != self.owner) throw py::value_error("A link must stay within its document.");
      link.target = target.Get().Identity();
    }
    converted = platform::Value(link);
  } else if (parameter.type == platform::ValueType::LINKLIST) {
    platform::NodeLinkList links;
    for (const py::handle item : py::iter(value)) {
      const PyNode& target = NodeArgument(item, parameter);
      if (target.owner != self.owner) throw py::value_error("A link must stay within its document.");
      links.targets.push_back(target.Get().Identity());
    }
    converted = platform::Value(std::move(links));
  } else {
    py::object json = value;
    // Curves as a preset name or a list of knots, as the file writes them inside an object.
    if (parameter.type == platform::ValueType::CURVE) {
      py::dict wrapped;
      wrapped[py::isinstance<py::str>(value) ? "preset" : "knots"] = value;
      json = wrapped;
    } else if (parameter.type == platform::ValueType::SPLINEPATH && !py::isinstance<py::dict>(value)) {
      py::dict wrapped;
      wrapped["points"] = value;
      json = wrapped;
    }
    std::string text;
    try {
      text = Json().attr("dumps")(json, py::arg("allow_nan") = true).cast<std::string>();
    } catch (const py::error_already_set&) {
      throw py::type_error("Cannot use " + py::repr(value).cast<std::string>() + " as " + parameter.symbol + ".");
    }
    converted = Check(platform::ReadParameterValue(node, parameter, text));
  }
  Check(self.owner->doc->SetParameter(node, parameter.id, std::move(converted)));
}

py::tuple MatrixOf(const platform::Matrix& m) {
  const auto v = [](const platform::Vector& x) { return py::make_tuple(x.x, x.y, x.z); };
  return py::make_tuple(v(m.off), v(m.v1), v(m.v2), v(m.v3));
}

platform::Matrix ToMatrix(const py::sequence& rows) {
  if (rows.size() != 4) throw py::value_error("A matrix is (offset, v1, v2, v3), each (x, y, z).");
  const auto v = [](const py::handle& x) {
    const auto t = x.cast<std::tuple<double, double, double>>();
    return platform::Vector(std::get<0>(t), std::get<1>(t), std::get<2>(t));
  };
  return platform::Matrix{v(rows[0]), v(rows[1]), v(rows[2]), v(rows[3])};
}

const platform::PluginInfo& CommandNamed(const py::object& key) {
  const platform::Registry& registry = TheHost().GetRegistry();
  const platform::PluginInfo* command = py::isinstance<py::int_>(key)
                                            ? platform::FindCommand(registry, key.cast<Int32>())
                                            : platform::FindCommand(registry, key.cast<std::string>());
  if (command == nullptr) throw py::value_error("No command " + py::repr(key).cast<std::string>() + ".");
  return *command;
}

// A read-only array over memory that `owner` keeps alive: no copy. A build replaces the
// grids and meshes it hands out instead of writing into them, so the array never changes.
template <class T, class Owner>
py::array_t<T> SharedArray(std::shared_ptr<Owner> owner, const T* data, std::vector<py::ssize_t> shape) {
  auto* held = new std::shared_ptr<Owner>(std::move(owner));
  py::capsule base(held, [](void* pointer) { delete static_cast<std::shared_ptr<Owner>*>(pointer); });
  py::array_t<T> array(std::move(shape), data, base);
  array.attr("flags").attr("writeable") = false;
  return array;
}

// A grid that a later build may overwrite (an operator's change map) as an array of its own.
py::array_t<double> CopiedArray(const VLGD::Grid2D<platform::Float>& grid) {
  py::array_t<double> array({grid.Height(), grid.Width()});
  if (grid.Count() > 0) std::memcpy(array.mutable_data(), grid.Data(), sizeof(double) * static_cast<std::size_t>(grid.Count()));
  array.attr("flags").attr("writeable") = false;
  return array;
}

static_assert(sizeof(platform::Vector) == 3 * sizeof(double) && sizeof(platform::CPolygon) == 4 * sizeof(Int32) &&
              sizeof(platform::UVWStruct) == 12 * sizeof(float));

py::dict MeshOf(const std::shared_ptr<const platform::GeometryObject>& cache) {
  const auto& mesh = static_cast<const platform::PolygonObject&>(*cache);
  const auto points = mesh.GetPointR();
  const auto polygons = mesh.GetPolygonR();
  py::dict out;
  out["points"] =
      SharedArray(cache, reinterpret_cast<const double*>(points.data()), {static_cast<py::ssize_t>(points.size()), 3});
  out["polygons"] = SharedArray(cache, reinterpret_cast<const Int32*>(polygons.data()),
                                {static_cast<py::ssize_t>(polygons.size()), 4});
  if (const auto* uvw = static_cast<const platform::UVWTag*>(mesh.FindTag(platform::TagType::UVW))) {
    const auto data = uvw->GetDataAddressR();
    out["uvs"] =
        SharedArray(cache, reinterpret_cast<const float*>(data.data()), {static_cast<py::ssize_t>(data.size()), 4, 3});
  }
  return out;
}

// One thread for every build of the process, kept for the next: a thread made per build
// cost a fifth of a blend-only rebuild (its allocator arena and the parallel loops' start).
// Builds queue up on it one at a time.
class BuildThread {
 public:
  static BuildThread& Get() {
    // Never destroyed: the thread waits for work until the process ends. A process forked
    // from this one has no such thread and makes its own.
    static BuildThread* thread = nullptr;
    static pid_t owner = 0;
    if (thread == nullptr || owner != getpid()) {
      thread = new BuildThread;
      owner = getpid();
    }
    return *thread;
  }
  void Post(std::function<void()> job) {
    const std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
    wake_.notify_one();
  }

 private:
  BuildThread() {
    std::thread([this] { Serve(); }).detach();
  }
  [[noreturn]] void Serve() {
    for (;;) {
      std::function<void()> job;
      {
        std::unique_lock lock(mutex_);
        wake_.wait(lock, [&] { return !jobs_.empty(); });
        job = std::move(jobs_.front());
        jobs_.pop_front();
      }
      job();
    }
  }
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> jobs_;
};

// Progress reported by the build thread, read by the Python thread.
class SharedProgress final : public platform::ProgressSink {
 public:
  void SetStatus(std::string_view text) override {
    const std::lock_guard lock(mutex_);
    status_ = text;
  }
  void ClearStatus() override { SetStatus({}); }
  void SetProgress(double fraction) override { fraction_.store(fraction, std::memory_order_relaxed); }
  std::pair<double, std::string> Read() {
    const std::lock_guard lock(mutex_);
    return {fraction_.load(std::memory_order_relaxed), status_};
  }

 private:
  std::mutex mutex_;
  std::string status_;
  std::atomic<double> fraction_{0.0};
};

// A baked texture as an array over the bake: (rows, columns, 3) uint8 sRGB colour or
// (rows, columns) uint16 linear mask, row 0 the terrain's far edge.
py::object TextureOf(const std::shared_ptr<const platform::Image>& image) {
  const py::ssize_t rows = image->Height(), columns = image->Width();
  const void* data = image->Bytes().data();
  if (image->Type() == platform::PixelType::UInt16)
    return SharedArray(image, static_cast<const std::uint16_t*>(data), {rows, columns});
  return SharedArray(image, static_cast<const std::uint8_t*>(data), {rows, columns, py::ssize_t{image->Channels()}});
}

py::list Build(const DocumentRef& owner, std::optional<int> threads, double lod, bool editor,
               const py::object& progress, std::optional<long long> textureSize) {
  if (!(lod > 0.0 && lod <= 1.0)) throw py::value_error("lod must lie in (0, 1].");
  if (textureSize && (*textureSize < 1 || *textureSize > 16384))
    throw py::value_error("texture_size must lie in 1 .. 16384.");
  if (threads && *threads < 1) throw py::value_error("threads must be at least 1.");
  platform::CancellationToken cancel;
  SharedProgress shared;
  platform::HierarchyHelp help;
  help.lod = lod;
  help.purpose = editor ? platform::BuildPurpose::EDITOR : platform::BuildPurpose::RENDER;
  help.cancel = &cancel;
  help.progress = &shared;
  platform::Status status = platform::Ok();
  // Per terrain, its materials as baked after the build (kept or baked again).
  std::vector<std::pair<const Node*, std::vector<VLGD::BakeReport>>> bakes;
  std::mutex doneMutex;
  std::condition_variable doneSignal;
  bool done = false;
  {
    // The build runs on the build thread, so that this one can answer Ctrl-C and report
    // progress while the GIL is released; it wakes the moment the build ends.
    BuildThread::Get().Post([&] {
      {
        std::optional<platform::ScopedThreadLimit> limit;
        if (threads) limit.emplace(*threads);
        status = owner->doc->ExecutePasses(help);
        for (Node* node : owner->doc->AllNodes()) {
          if (!status) break;
          if (node->GetType() != VLGD::ID_TERRAINOBJECT || !node->IsActiveFor(help.purpose) ||
              node->GetTextureLinks().empty())
            continue;
          auto baked = VLGD::BakeMaterials(
              *node, *owner->doc, {.textureSize = textureSize.value_or(0), .cancel = &cancel, .progress = &shared});
          if (baked)
            bakes.emplace_back(node, std::move(*baked));
          else
            status = std::unexpected(baked.error());
        }
      }
      const std::lock_guard lock(doneMutex);
      done = true;
      doneSignal.notify_one();
    });
    // Waits with the GIL released; true once the build ended.
    const auto waitForTheBuild = [&](std::chrono::milliseconds longest) {
      py::gil_scoped_release released;
      std::unique_lock lock(doneMutex);
      return doneSignal.wait_for(lock, longest, [&] { return done; });
    };
    constexpr std::chrono::milliseconds kPoll{20};
    bool interrupted = false;
    for (;;) {
      if (waitForTheBuild(kPoll)) break;
      if (!interrupted && PyErr_CheckSignals() != 0) {
        interrupted = true;  // the KeyboardInterrupt stays pending until the build stopped
        cancel.Cancel();
      }
      if (!interrupted && !progress.is_none()) {
        const auto [fraction, text] = shared.Read();
        try {
          progress(fraction, text);
        } catch (...) {
          cancel.Cancel();
          while (!waitForTheBuild(kPoll)) {
          }
          throw;
        }
      }
    }
    if (interrupted) throw py::error_already_set();
  }
  Check(status);

  py::list terrains;
  for (Node* node : owner->doc->AllNodes()) {
    if (node->GetType() != VLGD::ID_TERRAINOBJECT || !node->IsActiveFor(help.purpose)) continue;
    const auto* terrain = node->GetNodeData<VLGD::TerrainObject>();
    py::dict out;
    out["name"] = node->GetName();
    out["node"] = *Wrap(owner, node);
    const std::shared_ptr<const VLGD::Grid2D<platform::Float>> grid = terrain->ShareGrid();
    out["heights"] = SharedArray(grid, grid->Data(), {grid->Height(), grid->Width()});
    if (dynamic_cast<const platform::PolygonObject*>(node->GetCache()) != nullptr)
      out["mesh"] = MeshOf(node->ShareCache());
    py::list operators;
    for (const VLGD::TerrainObject::OperatorReport& report : terrain->LastBuildReport()) {
      py::dict op;
      op["node"] = *Wrap(owner, report.object);
      op["name"] = report.object->GetName();
      op["type"] = report.object->GetTypeInfo().resourceName;
      op["rebuilt"] = report.rebuilt;
      op["seconds"] = report.seconds;
      op["memory"] = report.memoryBytes;
      const auto* data = report.object->GetNodeData<VLGD::BaseTerrainOperatorData>();
      op["change_map"] = data != nullptr && data->GetChangeMap().Count() > 0
                             ? py::object(CopiedArray(data->GetChangeMap()))
                             : py::none();
      operators.append(op);
    }
    out["operators"] = operators;
    py::list materials;
    for (const auto& [baked, reports] : bakes) {
      if (baked != node) continue;
      for (const VLGD::BakeReport& report : reports) {
        py::dict material;
        material["node"] = *Wrap(owner, report.material);
        material["name"] = report.material->GetName();
        material["baked"] = report.baked;
        material["seconds"] = report.seconds;
        material["texture"] = TextureOf(report.image);
        materials.append(material);
      }
    }
    out["materials"] = materials;
    terrains.append(out);
  }
  return terrains;
}

py::list Describe(const std::optional<std::string>& type) {
  const platform::Registry& registry = TheHost().GetRegistry();
  py::list out;
  for (const auto& info : registry.All()) {
    if (!info->allocate && info->command == nullptr) continue;
    if (type && info->resourceName != *type) continue;
    py::dict entry;
    entry["type"] = info->resourceName;
    entry["id"] = info->id;
    entry["kind"] = info->command != nullptr ? "command" : "object";
    entry["name"] = TheHost().GetStrings().Get(info->nameStringId);
    py::list parameters;
    for (const platform::ParameterDescription& parameter : info->description.Parameters()) {
      if (parameter.kind != platform::ParameterKind::VALUE) continue;
      py::dict p;
      p["id"] = parameter.id;
      p["symbol"] = parameter.symbol;
      p["type"] = static_cast<int>(parameter.type);
      p["minimum"] = parameter.minimum ? py::cast(*parameter.minimum) : py::none();
      p["maximum"] = parameter.maximum ? py::cast(*parameter.maximum) : py::none();
      p["unit"] = parameter.unit;
      p["read_only"] = parameter.readOnly;
      if (const platform::Enumeration* choice = registry.Enumerations().Find(parameter.enumeration)) {
        py::dict members;
        for (const platform::EnumMember& member : choice->members) members[py::str(member.name)] = member.value;
        p["choices"] = members;
      }
      parameters.append(p);
    }
    entry["parameters"] = parameters;
    out.append(entry);
  }
  if (type && out.empty()) throw py::value_error("No node type or command '" + *type + "'.");
  return out;
}

py::array_t<double> Noise(Int32 type, const py::array_t<double, py::array::c_style | py::array::forcecast>& points,
                          Int32 seed, double octaves, bool two_d, double time, bool absolute, int repeat) {
  if (points.ndim() != 2 || points.shape(1) != 3) throw py::value_error("points must be an (N, 3) array.");
  if (platform::FindNoiseType(type) == nullptr) throw py::value_error("No noise type " + std::to_string(type) + ".");
  const auto generator = Check(platform::NoiseGenerator::Alloc(seed));
  const py::ssize_t count = points.shape(0);
  py::array_t<double> out(count);
  const double* in = points.data();
  double* values = out.mutable_data();
  {
    py::gil_scoped_release released;
    Check(platform::ParallelFor(0, count, {.granularity = 256, .singleThreadBelow = 10001}, [&](platform::Int i) {
      const platform::Vector point(in[3 * i], in[3 * i + 1], in[3 * i + 2]);
      values[i] = generator->Noise(type, two_d, point, time, octaves, absolute, 0.0, 0.0, repeat);
    }));
  }
  return out;
}

}  // namespace

PYBIND11_MODULE(vellgrund, m) {
  m.doc() = "Vellgrund: procedural terrain. Documents, nodes, commands with undo, builds as NumPy arrays.";
  ErrorType() = py::exception<platform::Error>(m, "Error", PyExc_RuntimeError);
  m.attr("__version__") = VELLGRUND_VERSION;
  (void)TheHost();

  py::class_<PyNode>(m, "Node", "An object of a document: a terrain, an operator, a field.")
      .def_property(
          "name", [](const PyNode& n) { return n.Get().GetName(); },
          [](const PyNode& n, const std::string& name) { n.Get().SetName(name); })
      .def_property_readonly(
          "type", [](const PyNode& n) { return n.Get().GetTypeInfo().resourceName; },
          "The type's resource name, such as 'oterrain'.")
      .def_property_readonly("parent", [](const PyNode& n) { return Wrap(n.owner, n.Get().GetUp()); })
      .def_property_readonly("children",
                             [](const PyNode& n) {
                               std::vector<PyNode> children;
                               for (const Node* c = n.Get().GetDown(); c != nullptr; c = c->GetNext())
                                 children.push_back(*Wrap(n.owner, c));
                               return children;
                             })
      .def_property_readonly(
          "shaders",
          [](const PyNode& n) {
            std::vector<PyNode> shaders;
            for (const Node* s = n.Get().GetBranch(); s != nullptr; s = s->GetNext())
              shaders.push_back(*Wrap(n.owner, s));
            return shaders;
          },
          "A material's shaders, bottom layer first.")
      .def_property(
          "materials",
          [](const PyNode& n) {
            std::vector<PyNode> materials;
            for (const platform::NodeLink& link : n.Get().GetTextureLinks())
              if (const Node* material = n.owner->doc->Resolve(link)) materials.push_back(*Wrap(n.owner, material));
            return materials;
          },
          [](const PyNode& n, const std::vector<PyNode>& materials) {
            std::vector<platform::NodeLink> links;
            for (const PyNode& material : materials) {
              if (material.owner != n.owner) throw py::value_error("A material must be of the terrain's document.");
              if ((material.Get().GetTypeInfo().objectInfo & platform::OBJECT_MATERIAL) == 0)
                throw py::value_error("'" + material.Get().GetName() + "' is not a material.");
              links.push_back(platform::NodeLink{material.identity});
            }
            n.Get().SetTextureLinks(std::move(links));
          },
          "The materials a terrain wears, in order; the first colour one textures its mesh.")
      .def_property(
          "enabled", [](const PyNode& n) { return n.Get().IsEnabled(); },
          [](const PyNode& n, bool on) { n.Get().SetEnabled(on); })
      .def_property(
          "matrix", [](const PyNode& n) { return MatrixOf(n.Get().GetMl()); },
          [](const PyNode& n, const py::sequence& rows) { n.Get().SetMl(ToMatrix(rows)); },
          "The local matrix as (offset, v1, v2, v3).")
      .def("__getitem__", &GetParameter, "A parameter by symbol or ID, as a scene file writes it.")
      .def("__setitem__", &SetParameter, "Sets a parameter as an editor does: checked, clamped, the node told.")
      .def("__eq__", &PyNode::operator==)
      .def("__hash__", [](const PyNode& n) { return std::hash<platform::UInt64>()(n.identity); })
      .def("__repr__", [](const PyNode& n) {
        const Node& node = n.Get();
        return "<vellgrund.Node " + node.GetTypeInfo().resourceName + " '" + node.GetName() + "'>";
      });

  py::class_<DocumentHolder, DocumentRef>(m, "Document", "A scene: nodes, selection, undo, builds.")
      .def_static(
          "new",
          [] {
            return std::make_shared<DocumentHolder>(
                DocumentHolder{Check(platform::LoadScene(TheHost(), VLGD::kDefaultScene, "default scene"))});
          },
          "The default scene.")
      .def_static(
          "load",
          [](const std::string& path) {
            return std::make_shared<DocumentHolder>(DocumentHolder{Check(platform::LoadSceneFile(TheHost(), path))});
          })
      .def_static("from_json",
                  [](const std::string& text) {
                    return std::make_shared<DocumentHolder>(
                        DocumentHolder{Check(platform::LoadScene(TheHost(), text, "JSON text"))});
                  })
      .def("save", [](const DocumentRef& d, const std::string& path) { Check(platform::SaveSceneFile(*d->doc, path)); })
      .def("to_json", [](const DocumentRef& d) { return Check(platform::SaveScene(*d->doc)); })
      .def(
          "nodes",
          [](const DocumentRef& d) {
            std::vector<PyNode> nodes;
            for (const Node* node : d->doc->AllNodes()) nodes.push_back(*Wrap(d, node));
            return nodes;
          },
          "Every node, depth first.")
      .def("find", [](const DocumentRef& d, const std::string& name) { return Wrap(d, d->doc->FindByName(name)); })
      .def(
          "insert",
          [](const DocumentRef& d, const std::string& type, const std::optional<PyNode>& parent,
             const std::optional<PyNode>& before) {
            auto created = Check(d->doc->CreateNode(type));
            Node* node = Check(d->doc->Place(std::move(created), parent ? &parent->Get() : nullptr,
                                             before ? &before->Get() : nullptr));
            return *Wrap(d, node);
          },
          py::arg("type"), py::arg("parent") = py::none(), py::arg("before") = py::none())
      .def("remove", [](const DocumentRef& d, const PyNode& node) { (void)d->doc->Remove(node.Get()); })
      .def("select",
           [](const DocumentRef& d, const std::vector<PyNode>& nodes) {
             d->doc->SetActiveObject(nullptr);
             for (const PyNode& node : nodes) d->doc->SetActiveObject(&node.Get(), platform::SelectionMode::ADD);
           })
      .def_property_readonly("selection",
                             [](const DocumentRef& d) {
                               std::vector<PyNode> nodes;
                               for (const Node* node : d->doc->GetActiveObjects()) nodes.push_back(*Wrap(d, node));
                               return nodes;
                             })
      .def(
          "command",
          [](const DocumentRef& d, const py::object& key, bool modifier) {
            return Check(platform::ExecuteCommand(*d->doc, CommandNamed(key), {.modifier = modifier}));
          },
          py::arg("name_or_id"), py::arg("modifier") = false)
      .def("command_enabled",
           [](const DocumentRef& d, const py::object& key) {
             return platform::IsCommandEnabled(*d->doc, CommandNamed(key));
           })
      .def("undo", [](const DocumentRef& d) { return d->doc->DoUndo(); })
      .def("redo", [](const DocumentRef& d) { return d->doc->DoRedo(); })
      .def(
          "materials",
          [](const DocumentRef& d) {
            std::vector<PyNode> materials;
            for (const Node* material = d->doc->GetFirstMaterial(); material != nullptr; material = material->GetNext())
              materials.push_back(*Wrap(d, material));
            return materials;
          },
          "The document's materials, in order.")
      .def("build", &Build, py::arg("threads") = py::none(), py::arg("lod") = 1.0, py::arg("editor") = false,
           py::arg("progress") = py::none(), py::arg("texture_size") = py::none(),
           "Rebuilds what changed since the last build; per terrain its heights, mesh, operators and\n"
           "materials (baked again only when what they read changed).\n"
           "Heights, mesh and texture arrays are read-only views without a copy; later builds leave them unchanged.");

  m.def("commands", [] {
    std::vector<std::string> names;
    for (const platform::PluginInfo* command : platform::MenuCommands(TheHost().GetRegistry()))
      names.push_back(command->resourceName);
    return names;
  }, "The commands in menu order.");
  m.def("describe", &Describe, py::arg("type") = py::none(), "The registered types and their parameters.");
  m.def("noise", &Noise, py::arg("type"), py::arg("points"), py::arg("seed") = 0, py::arg("octaves") = 1.0,
        py::arg("two_d") = false, py::arg("time") = 0.0, py::arg("absolute") = false, py::arg("repeat") = 0,
        "Noise values in 0..1 at an (N, 3) array of points.");
}
