#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>

#include "platform/document.h"
#include "platform/host.h"
#include "support/terrain_harness.h"
#include "vellgrund/baseterrainoperator.h"

namespace testing_support {

using platform::Float;
using platform::Int;

// One operator node of `type` in a document with the module loaded, computed directly on
// grids of the test's making.
struct DirectOperator {
  explicit DirectOperator(platform::Int32 type);

  [[nodiscard]] VLGD::BaseTerrainOperatorData& Data() const;
  // Through the document, so that the operator's message hooks run.
  void Set(platform::ParameterId id, platform::Value value);
  // Straight into the container: no hooks, any value.
  void Put(platform::ParameterId id, platform::Value value);
  void Remove(platform::ParameterId id) { EXPECT_TRUE(op->GetDataInstance().Remove(id)); }
  platform::Status Compute(const VLGD::Grid2D<Float>& incoming, const platform::CancellationToken* thread = nullptr);
  [[nodiscard]] const VLGD::Grid2D<Float>& Result() const { return Data().GetResult(); }
  [[nodiscard]] Float Out(Int i) const { return Result().Data()[i]; }

  platform::CollectingConsole console;
  platform::Host host;
  std::unique_ptr<platform::Document> doc;
  platform::Node* op = nullptr;
};

// A grid of value(x, y), its range computed as the stack does for REQUIRES_MINMAX.
VLGD::Grid2D<Float> MakeGrid(Int width, Int height, const std::function<Float(Int, Int)>& value, Float sizeX = 10.0,
                             Float sizeY = 10.0);
VLGD::Grid2D<Float> Row(std::initializer_list<Float> values);
// Uniform samples in [lo, hi) from a fixed seed.
VLGD::Grid2D<Float> RandomGrid(Int width, Int height, unsigned seed, Float lo = 0.0, Float hi = 1.0);
VLGD::Grid2D<Float> Copy(const VLGD::Grid2D<Float>& grid);
// Rebuilds the harness's document: the operators computed, as Rebuilt() lists them.
std::string Recomputed(TerrainHarness& harness);
// The same shape and bit-identical samples.
::testing::AssertionResult Identical(const VLGD::Grid2D<Float>& actual, const VLGD::Grid2D<Float>& expected);

}  // namespace testing_support
