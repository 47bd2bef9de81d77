#pragma once

#include <span>
#include <utility>
#include <vector>

#include "platform/parallel.h"
#include "platform/result.h"
#include "platform/types.h"
#include "platform/vector.h"

namespace platform {

class Document;
struct NodeLink;

// How a layer's value meets the value of the layers before it. Stored in files.
enum class FieldBlend : Int32 {
  NORMAL = 0,
  ADD = 1,
  MULTIPLY = 2,
  MAX = 3,
  MIN = 4,
};

// The names that files and editors give the blends.
inline constexpr std::pair<FieldBlend, const char*> kFieldBlendNames[] = {{FieldBlend::NORMAL, "NORMAL"},
                                                                          {FieldBlend::ADD, "ADD"},
                                                                          {FieldBlend::MULTIPLY, "MULTIPLY"},
                                                                          {FieldBlend::MAX, "MAX"},
                                                                          {FieldBlend::MIN, "MIN"}};

// One layer of a field list: a field object of the document, weighted by its opacity.
struct FieldLayer {
  UInt64 field = 0;  // identity of the linked field object (a NodeLink target)
  Float opacity = 1.0;  // 0 .. 1
  FieldBlend blend = FieldBlend::NORMAL;
  bool enabled = true;
  UInt32 dirty = 0;  // data dirty count of the layer, bumped by every edit of it

  // Equal settings; the dirty count is bookkeeping and takes no part.
  friend bool operator==(const FieldLayer& a, const FieldLayer& b) {
    return a.field == b.field && a.opacity == b.opacity && a.blend == b.blend && a.enabled == b.enabled;
  }
};

// A mask value: layers of field objects, sampled into one value in 0 .. 1 per position.
// Layers are evaluated first to last, starting from 0.
class FieldList {
 public:
  [[nodiscard]] std::span<const FieldLayer> Layers() const { return layers_; }
  [[nodiscard]] bool HasContent() const { return !layers_.empty(); }

  // Edits bump the list's dirty value; layer edits also bump the layer's own count.
  Status AddLayer(FieldLayer layer);
  // False when the index is out of range.
  bool SetLayer(Int index, const FieldLayer& layer);
  bool RemoveLayer(Int index);

  // The list's own dirty value.
  [[nodiscard]] UInt32 GetDirty() const { return dirty_; }
  // The sum of the layers' dirty counts.
  [[nodiscard]] UInt32 LayersDirty() const;
  // The sum of the data, matrix and cache dirty counts of the objects the layers link
  // (unresolved links count 0).
  [[nodiscard]] UInt32 LinkedObjectsDirty(const Document& document) const;

  // Samples every position (global coordinates) into `out`, in parallel with the given
  // options; `out` must be as long as `positions`. Layers whose link no longer resolves, or
  // that are disabled, are skipped. The result does not depend on the thread count.
  Status Sample(const Document& document, std::span<const Vector> positions, std::span<Float> out,
                const ParallelOptions& options) const;

  // Equal layers; the dirty values take no part.
  friend bool operator==(const FieldList& a, const FieldList& b) { return a.layers_ == b.layers_; }

 private:
  std::vector<FieldLayer> layers_;
  UInt32 dirty_ = 0;
};

}  // namespace platform
