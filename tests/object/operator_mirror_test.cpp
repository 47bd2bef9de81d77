#include "object/operator_mirror.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "main/vellgrund_module.h"
#include "platform/document.h"
#include "support/terrain_harness.h"

namespace {

using namespace platform;
using namespace VLGD;
using testing_support::TerrainHarness;

// One Mirror operator in a document, computed directly on grids of the test's making.
struct DirectMirror {
  DirectMirror() {
    host.SetConsole(console);
    EXPECT_TRUE(StartModule(host));
    doc = std::make_unique<Document>(host);
    auto created = doc->CreateNode(ID_MIRROROPERATOR);
    EXPECT_TRUE(created);
    op = doc->InsertLast(std::move(*created));
  }
  [[nodiscard]] BaseTerrainOperatorData& Data() const { return *op->GetNodeData<BaseTerrainOperatorData>(); }
  void Set(ParameterId id, Value value) { EXPECT_TRUE(doc->SetParameter(*op, id, std::move(value))); }
  Status Compute(const Grid2D<Float>& incoming, const CancellationToken* thread = nullptr) {
    EvaluationContext context;
    context.thread = thread;
    return Data().Compute(incoming, *op, *doc, context);
  }
  [[nodiscard]] const Grid2D<Float>& Result() const { return Data().GetResult(); }
  void Flags(bool x, bool h, bool y) {
    Set(MIRROROPERATOR_X, x);
    Set(MIRROROPERATOR_HEIGHT, h);
    Set(MIRROROPERATOR_Y, y);
  }

  CollectingConsole console;
  Host host;
  std::unique_ptr<Document> doc;
  Node* op = nullptr;
};

// A grid of value(x, y), its range computed as the stack does for REQUIRES_MINMAX.
Grid2D<Float> MakeGrid(Int width, Int height, const std::function<Float(Int, Int)>& value) {
  Grid2D<Float> grid;
  EXPECT_TRUE(grid.Init(width, height, 10.0, 10.0));
  for (Int y = 0; y < height; ++y)
    for (Int x = 0; x < width; ++x) grid.Set(x, y, value(x, y));
  grid.RecomputeRange();
  return grid;
}

std::vector<Float> Values(const Grid2D<Float>& grid) {
  return {grid.Values().begin(), grid.Values().end()};
}

TEST(MirrorOperatorTest, FlipsColumnsRowsAndHeights) {
  DirectMirror m;
  EXPECT_EQ(m.Data().GetFlags(*m.op), TERRAINOPERATORFLAGS::TYPE_FILTER | TERRAINOPERATORFLAGS::REQUIRES_MINMAX);
  std::vector<ParameterId> ids;
  EXPECT_TRUE(m.Data().GetRebuildParameters(ids, m.op->GetData()));
  EXPECT_EQ(ids, (std::vector<ParameterId>{MIRROROPERATOR_X, MIRROROPERATOR_HEIGHT, MIRROROPERATOR_Y}));

  // 3 columns, 2 rows: 1 2 3 / 4 5 6.
  const Grid2D<Float> in = MakeGrid(3, 2, [](Int x, Int y) { return static_cast<Float>(1 + x + 3 * y); });
  ASSERT_TRUE(m.Compute(in));
  EXPECT_EQ(Values(m.Result()), Values(in));
  EXPECT_FALSE(m.Result().IsMinMaxValid());
  m.Flags(true, false, false);
  ASSERT_TRUE(m.Compute(in));
  EXPECT_EQ(Values(m.Result()), (std::vector<Float>{3, 2, 1, 6, 5, 4}));
  m.Flags(false, false, true);
  ASSERT_TRUE(m.Compute(in));
  EXPECT_EQ(Values(m.Result()), (std::vector<Float>{4, 5, 6, 1, 2, 3}));
  m.Flags(true, false, true);
  ASSERT_TRUE(m.Compute(in));
  EXPECT_EQ(Values(m.Result()), (std::vector<Float>{6, 5, 4, 3, 2, 1}));

  // Height: min + max - v, so the highest point becomes the lowest and the range is kept.
  m.Flags(false, true, false);
  ASSERT_TRUE(m.Compute(in));
  EXPECT_EQ(Values(m.Result()), (std::vector<Float>{6, 5, 4, 3, 2, 1}));
  m.Flags(true, true, true);
  ASSERT_TRUE(m.Compute(in));
  EXPECT_EQ(Values(m.Result()), (std::vector<Float>{1, 2, 3, 4, 5, 6}));
  const Grid2D<Float> bumpy =
      MakeGrid(9, 7, [](Int x, Int y) { return static_cast<Float>((x * 7 + y * 3) % 11) - 4.0; });
  m.Flags(false, true, false);
  ASSERT_TRUE(m.Compute(bumpy));
  Grid2D<Float> flipped;
  ASSERT_TRUE(flipped.CopyFrom(m.Result()));
  flipped.RecomputeRange();
  EXPECT_EQ(flipped.Minimum(), bumpy.Minimum());
  EXPECT_EQ(flipped.Maximum(), bumpy.Maximum());

  // A flat input becomes max everywhere; one without a valid range reads 0 .. 0.
  ASSERT_TRUE(m.Compute(MakeGrid(2, 2, [](Int, Int) { return 3.5; })));
  EXPECT_EQ(Values(m.Result()), (std::vector<Float>{3.5, 3.5, 3.5, 3.5}));
  Grid2D<Float> unranged = MakeGrid(3, 2, [](Int x, Int y) { return static_cast<Float>(1 + x + 3 * y); });
  unranged.ResetRange();
  ASSERT_TRUE(m.Compute(unranged));
  EXPECT_EQ(Values(m.Result()), std::vector<Float>(6, 0.0));

  // flipX applied twice restores the input exactly.
  m.Flags(true, false, false);
  ASSERT_TRUE(m.Compute(bumpy));
  Grid2D<Float> once;
  ASSERT_TRUE(once.CopyFrom(m.Result()));
  ASSERT_TRUE(m.Compute(once));
  EXPECT_EQ(Values(m.Result()), Values(bumpy));

  ASSERT_TRUE(m.Compute(MakeGrid(0, 0, [](Int, Int) { return 0.0; })));
  EXPECT_EQ(m.Result().Count(), 0);
}

TEST(MirrorOperatorTest, ABreakStopsTheLoopAtRowsPassingTheMask) {
  DirectMirror m;
  m.Flags(true, false, false);
  CancellationToken cancelled;
  cancelled.Cancel();
  // Row 0 is never tested ((0 AND 999) = 0): a single row is mirrored whatever its length.
  const Grid2D<Float> line = MakeGrid(20000, 1, [](Int x, Int) { return static_cast<Float>(x); });
  ASSERT_TRUE(m.Compute(line, &cancelled));
  EXPECT_EQ(m.Result().Get(0, 0), 19999.0);
  for (const Int rows : {Int{2}, Int{150}}) {  // one thread, all threads
    const Status status = m.Compute(MakeGrid(150, rows, [](Int x, Int) { return static_cast<Float>(x); }), &cancelled);
    ASSERT_FALSE(status) << rows;
    EXPECT_EQ(status.error().kind, ErrorKind::Cancelled);
    EXPECT_EQ(status.error().message, "Mirror operator cancelled!");
  }
  CancellationToken running;
  ASSERT_TRUE(m.Compute(MakeGrid(150, 150, [](Int x, Int) { return static_cast<Float>(x); }), &running));
  EXPECT_EQ(m.Result().Get(0, 149), 149.0);
}

TEST(MirrorOperatorTest, InTheStackTwoMirrorsRestoreTheTerrainAndBlendingRebuildsNothing) {
  TerrainHarness h(8, 80.0);
  h.AddGenerator("ramp", 0.0);  // heights 0 .. 8
  Node* first = h.AddOperator(ID_MIRROROPERATOR, "first");
  Node* second = h.AddOperator(ID_MIRROROPERATOR, "second");
  for (Node* mirror : {first, second}) {
    h.Set(mirror, TERRAINOPERATOR_BLENDMODE, Int32{0});  // NORMAL
    h.Set(mirror, MIRROROPERATOR_X, true);
  }
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "ramp first second");
  for (Int x = 0; x <= 8; ++x) EXPECT_EQ(h.Height(x, 2), static_cast<Float>(x)) << x;

  h.Set(second, MIRROROPERATOR_X, false);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "second");
  EXPECT_EQ(h.Height(0, 2), 8.0);

  h.Set(second, MIRROROPERATOR_HEIGHT, true);  // 0 .. 8 keeps its range, flipped back
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "second");
  EXPECT_EQ(h.Height(0, 2), 0.0);
  EXPECT_EQ(h.Height(8, 2), 8.0);

  h.Set(second, TERRAINOPERATOR_STRENGTH, 0.5);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "");
  EXPECT_EQ(h.Height(0, 2), 4.0);
}

}  // namespace
