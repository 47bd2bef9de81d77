#include "platform/field_list.h"

#include <algorithm>
#include <new>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "platform/document.h"
#include "platform/field_objects.h"
#include "platform/memory.h"
#include "platform/node.h"
#include "platform/registry.h"

namespace platform {
namespace {

// A layer as the sampling loop sees it: everything read from the document beforehand.
struct ActiveLayer {
  FieldEvaluator field;
  Float opacity = 1.0;
  FieldBlend blend = FieldBlend::NORMAL;
};

bool IsKnownBlend(FieldBlend blend) {
  switch (blend) {
    case FieldBlend::NORMAL:
    case FieldBlend::ADD:
    case FieldBlend::MULTIPLY:
    case FieldBlend::MAX:
    case FieldBlend::MIN:
      return true;
  }
  return false;
}

// The node a layer links, when it is an enabled field object of the document.
const Node* ResolveField(const Document& document, const FieldLayer& layer) {
  const Node* node = document.FindByIdentity(layer.field);
  if (node == nullptr || (node->GetTypeInfo().objectInfo & OBJECT_FIELD) == 0 || !node->IsEnabled()) return nullptr;
  return node;
}

Float Blend(FieldBlend blend, Float previous, Float value) {
  switch (blend) {
    case FieldBlend::NORMAL:
      return value;
    case FieldBlend::ADD:
      return previous + value;
    case FieldBlend::MULTIPLY:
      return previous * value;
    case FieldBlend::MAX:
      return std::max(previous, value);
    case FieldBlend::MIN:
      return std::min(previous, value);
  }
  return value;
}

}  // namespace

Status FieldList::AddLayer(FieldLayer layer) {
  layer.dirty += 1;
  try {
    layers_.push_back(layer);
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  } catch (const std::length_error&) {
    return OutOfMemoryError();
  }
  ++dirty_;
  return Ok();
}

bool FieldList::SetLayer(Int index, const FieldLayer& layer) {
  if (index < 0 || index >= static_cast<Int>(layers_.size())) return false;
  FieldLayer& stored = layers_[static_cast<std::size_t>(index)];
  // Counting on from the slot's count, not the caller's, changes the layers' sum for sure.
  const UInt32 dirty = stored.dirty + 1;
  stored = layer;
  stored.dirty = dirty;
  ++dirty_;
  return true;
}

bool FieldList::RemoveLayer(Int index) {
  if (index < 0 || index >= static_cast<Int>(layers_.size())) return false;
  layers_.erase(layers_.begin() + index);
  ++dirty_;
  return true;
}

UInt32 FieldList::LayersDirty() const {
  UInt32 sum = 0;
  for (const FieldLayer& layer : layers_) sum += layer.dirty;
  return sum;
}

UInt32 FieldList::LinkedObjectsDirty(const Document& document) const {
  UInt32 sum = 0;
  for (const FieldLayer& layer : layers_) {
    const Node* node = document.FindByIdentity(layer.field);
    if (node == nullptr) continue;
    sum += node->GetDirty(DIRTYFLAGS_DATA | DIRTYFLAGS_MATRIX | DIRTYFLAGS_CACHE);
    // The field samples in global space: a moved parent moves it too.
    for (const Node* up = node->GetUp(); up != nullptr; up = up->GetUp()) sum += up->GetDirty(DIRTYFLAGS_MATRIX);
  }
  return sum;
}

Status FieldList::Sample(const Document& document, std::span<const Vector> positions, std::span<Float> out,
                         const ParallelOptions& options) const {
  if (out.size() != positions.size())
    return IllegalArgumentError("FieldList::Sample(): positions and output differ in size!");

  std::vector<ActiveLayer> active;
  VLGD_RETURN_IF_ERROR(TryReserve(active, static_cast<Int>(layers_.size())));
  for (const FieldLayer& layer : layers_) {
    if (!layer.enabled) continue;
    const Node* node = ResolveField(document, layer);
    if (node == nullptr) continue;
    std::optional<FieldEvaluator> field = MakeFieldEvaluator(*node);
    if (!field) continue;
    ActiveLayer& entry = active.emplace_back();  // capacity reserved above
    entry.field = *field;
    // NaN opacity hides the layer rather than poisoning every sample.
    entry.opacity = layer.opacity > 0.0 ? std::min(layer.opacity, 1.0) : 0.0;
    // A blend number from a newer or damaged file falls back to plain replacement.
    entry.blend = IsKnownBlend(layer.blend) ? layer.blend : FieldBlend::NORMAL;
  }

  const Vector* source = positions.data();
  Float* target = out.data();
  return ParallelForRange(0, static_cast<Int>(positions.size()), options, [&](Int begin, Int end) {
    for (Int i = begin; i < end; ++i) {
      const Vector& position = source[i];
      Float value = 0.0;
      for (const ActiveLayer& layer : active) {
        const Float blended = Blend(layer.blend, value, layer.field.ValueAt(position));
        value += (blended - value) * layer.opacity;
      }
      // Only the final value is clamped: an added layer above 1 may still be scaled down
      // by a later multiply.
      target[i] = std::clamp(value, 0.0, 1.0);
    }
  });
}

}  // namespace platform
