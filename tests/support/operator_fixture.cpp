#include "support/operator_fixture.h"

#include <random>
#include <utility>
#include <vector>

#include "main/vellgrund_module.h"

namespace testing_support {

using namespace platform;
using VLGD::Grid2D;

DirectOperator::DirectOperator(Int32 type) {
  host.SetConsole(console);
  EXPECT_TRUE(VLGD::StartModule(host));
  doc = std::make_unique<Document>(host);
  auto created = doc->CreateNode(type);
  EXPECT_TRUE(created);
  op = doc->InsertLast(std::move(*created));
}

VLGD::BaseTerrainOperatorData& DirectOperator::Data() const {
  return *op->GetNodeData<VLGD::BaseTerrainOperatorData>();
}

void DirectOperator::Set(ParameterId id, Value value) {
  EXPECT_TRUE(doc->SetParameter(*op, id, std::move(value)));
}

void DirectOperator::Put(ParameterId id, Value value) {
  EXPECT_TRUE(op->GetDataInstance().Set(id, std::move(value)));
}

Status DirectOperator::Compute(const Grid2D<Float>& incoming, const CancellationToken* thread) {
  VLGD::EvaluationContext context;
  context.thread = thread;
  return Data().Compute(incoming, *op, *doc, context);
}

Grid2D<Float> MakeGrid(Int width, Int height, const std::function<Float(Int, Int)>& value, Float sizeX, Float sizeY) {
  Grid2D<Float> grid;
  EXPECT_TRUE(grid.Init(width, height, sizeX, sizeY));
  for (Int y = 0; y < height; ++y)
    for (Int x = 0; x < width; ++x) grid.Set(x, y, value(x, y));
  grid.RecomputeRange();
  return grid;
}

Grid2D<Float> Row(std::initializer_list<Float> values) {
  const std::vector<Float> list(values);
  return MakeGrid(static_cast<Int>(list.size()), 1, [&](Int x, Int) { return list[static_cast<std::size_t>(x)]; });
}

Grid2D<Float> RandomGrid(Int width, Int height, unsigned seed, Float lo, Float hi) {
  std::mt19937_64 engine(seed);
  std::uniform_real_distribution<Float> uniform(lo, hi);
  return MakeGrid(width, height, [&](Int, Int) { return uniform(engine); });
}

Grid2D<Float> Copy(const Grid2D<Float>& grid) {
  Grid2D<Float> copy;
  EXPECT_TRUE(copy.CopyFrom(grid));
  return copy;
}

std::string Recomputed(TerrainHarness& harness) {
  const Status rebuilt = harness.Rebuild();
  return rebuilt ? harness.Rebuilt() : "failed: " + rebuilt.error().message;
}

::testing::AssertionResult Identical(const Grid2D<Float>& actual, const Grid2D<Float>& expected) {
  if (actual.Width() != expected.Width() || actual.Height() != expected.Height())
    return ::testing::AssertionFailure() << actual.Width() << " x " << actual.Height() << " instead of "
                                         << expected.Width() << " x " << expected.Height();
  for (Int i = 0; i < actual.Count(); ++i)
    if (!(actual.Data()[i] == expected.Data()[i]))
      return ::testing::AssertionFailure()
             << "sample " << i << " is " << actual.Data()[i] << ", expected " << expected.Data()[i];
  return ::testing::AssertionSuccess();
}

}  // namespace testing_support
