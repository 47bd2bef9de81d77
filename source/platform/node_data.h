#pragma once

#include <memory>

#include "platform/cancellation.h"
#include "platform/geometry.h"
#include "platform/messages.h"
#include "platform/parameters.h"
#include "platform/progress.h"
#include "platform/result.h"

namespace platform {

class Document;
class Node;

// The behaviour of a node type: one instance per node, created by the type's allocator in
// the registry. The document owns the parameters; the data owns whatever the type keeps
// beside them (caches, results).
class NodeData {
 public:
  virtual ~NodeData() = default;

  // Writes the defaults into the node's parameters. False refuses the node.
  virtual bool Init(Node& node) {
    (void)node;
    return true;
  }
  // Called after a node was read from a file, with the disk level it was written with, so
  // older files can be converted. False refuses the file.
  virtual bool Read(Node& node, Int32 diskLevel) {
    (void)node;
    (void)diskLevel;
    return true;
  }
  // True when the message was handled.
  virtual bool Message(Node& node, Int32 type, MessageData& data) {
    (void)node;
    (void)type;
    (void)data;
    return true;
  }
  // Whether the parameter `id` with its current `value` can be edited now (greyed out when
  // false).
  [[nodiscard]] virtual bool GetDEnabling(const Node& node, ParameterId id, const Value& value) const {
    (void)node;
    (void)id;
    (void)value;
    return true;
  }
  // Whether the parameter `id` is shown at all.
  [[nodiscard]] virtual bool GetDVisibility(const Node& node, ParameterId id) const {
    (void)node;
    (void)id;
    return true;
  }
  // The node is about to leave its document (deleted, or moved out by undo): the last
  // moment its links still resolve.
  virtual void Removing(Node& node, Document& document) {
    (void)node;
    (void)document;
  }
  // Copies what the data keeps beside the parameters into a clone's data of the same type.
  virtual bool CopyTo(NodeData& destination) const {
    (void)destination;
    return true;
  }
};

enum class BuildPurpose { EDITOR, RENDER };

enum BuildFlags : UInt32 {
  BUILDFLAGS_NONE = 0,
  BUILDFLAGS_ISOPARM = 1,  // the caller wants isoparm outlines
};

// What a generator's build gets from the caller.
struct HierarchyHelp {
  Float lod = 1.0;  // level of detail, 1 = full
  BuildPurpose purpose = BuildPurpose::EDITOR;
  UInt32 flags = BUILDFLAGS_NONE;
  const CancellationToken* cancel = nullptr;
  ProgressSink* progress = nullptr;
};

// The data of object nodes. Generators build geometry from their parameters and children.
class ObjectData : public NodeData {
 public:
  // A new object for the node's cache, or nullptr to keep the cache it has (when nothing
  // changed since it was built). Non-generators return nullptr.
  virtual Result<std::unique_ptr<GeometryObject>> GetVirtualObjects(Node& node, const HierarchyHelp& help) {
    (void)node;
    (void)help;
    return std::unique_ptr<GeometryObject>{};
  }
  // The bounding box of what the node shows, as centre and half extent.
  virtual void GetDimension(const Node& node, Vector& centre, Vector& radius) const {
    (void)node;
    centre = {};
    radius = {};
  }
};

// The state value of a command the editor can run.
enum CommandState : Int32 {
  CMD_DISABLED = 0,
  CMD_ENABLED = 0x40000000,
};

struct CommandInput {
  bool modifier = false;  // the user held the modifier key (the command's alternate step)
};

class CommandData {
 public:
  virtual ~CommandData() = default;
  virtual Result<bool> Execute(Document& document, const CommandInput& input) = 0;
  [[nodiscard]] virtual Int32 GetState(Document& document, const CommandInput& input) = 0;
};

}  // namespace platform
