#include "object/operator_sharpen.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>

#include "main/vellgrund_module.h"
#include "platform/description.h"
#include "platform/document.h"
#include "support/terrain_harness.h"
#include "vellgrund/convolution.h"

namespace {

using namespace platform;
using namespace VLGD;
using testing_support::TerrainHarness;

// One Sharpen operator in a document, computed directly on a grid.
struct SharpenFixture {
  SharpenFixture() {
    host.SetConsole(console);
    EXPECT_TRUE(StartModule(host));
    doc = std::make_unique<Document>(host);
    auto created = doc->CreateNode(ID_SHARPENOPERATOR);
    EXPECT_TRUE(created);
    op = doc->InsertLast(std::move(*created));
    std::mt19937_64 engine(9);
    std::uniform_real_distribution<Float> uniform(-5.0, 5.0);
    EXPECT_TRUE(incoming.Init(13, 10, 12.0, 9.0));
    for (Float& v : incoming.Values()) v = uniform(engine);
    incoming.RecomputeRange();
  }
  BaseTerrainOperatorData& Data() { return *op->GetNodeData<BaseTerrainOperatorData>(); }
  Status Compute() { return Data().Compute(incoming, *op, *doc, context); }
  const Grid2D<Float>& Result() { return Data().GetResult(); }
  void Set(ParameterId id, Value value) { ASSERT_TRUE(doc->SetParameter(*op, id, std::move(value))); }

  CollectingConsole console;
  Host host;
  std::unique_ptr<Document> doc;
  Node* op = nullptr;
  Grid2D<Float> incoming;
  EvaluationContext context;
};

void ExpectSameSamples(const Grid2D<Float>& actual, const Grid2D<Float>& expected) {
  ASSERT_EQ(actual.Width(), expected.Width());
  ASSERT_EQ(actual.Height(), expected.Height());
  for (Int i = 0; i < actual.Count(); ++i) ASSERT_EQ(actual.Values()[i], expected.Values()[i]) << i;
}

TEST(SharpenOperatorTest, DefaultsFlagsEnablingAndRelevantParameters) {
  SharpenFixture f;
  EXPECT_EQ(f.op->GetData().GetInt32(SHARPENOPERATOR_TYPE, -1), 0);
  EXPECT_EQ(f.op->GetData().GetInt32(SHARPENOPERATOR_SIZE, -1), 3);
  EXPECT_EQ(f.op->GetData().GetFloat(SHARPENOPERATOR_AMOUNT, -1.0), 0.0);
  EXPECT_EQ(f.Data().GetFlags(*f.op), TERRAINOPERATORFLAGS::TYPE_FILTER);
  std::vector<ParameterId> ids;
  EXPECT_TRUE(f.Data().GetRebuildParameters(ids, f.op->GetData()));
  EXPECT_EQ(ids, (std::vector<ParameterId>{SHARPENOPERATOR_TYPE, SHARPENOPERATOR_SIZE, SHARPENOPERATOR_AMOUNT}));

  for (const Int32 type : {0, 1, 2, 3, 8}) {
    f.Set(SHARPENOPERATOR_TYPE, type);
    EXPECT_EQ(IsParameterEnabled(*f.op, SHARPENOPERATOR_SIZE), type == 0 || type == 3) << type;
    EXPECT_EQ(IsParameterEnabled(*f.op, SHARPENOPERATOR_AMOUNT), type == 0) << type;
    EXPECT_TRUE(IsParameterEnabled(*f.op, SHARPENOPERATOR_TYPE));
  }

  const Enumeration* types = f.host.GetRegistry().Enumerations().Find("SHARPENTYPE");
  ASSERT_NE(types, nullptr);
  EXPECT_EQ(types->ValueOf("SEPARABLE"), 0);
  EXPECT_EQ(types->ValueOf("SHARPEN3X3"), 1);
  EXPECT_EQ(types->ValueOf("UNSHARP5X5"), 2);
  EXPECT_EQ(types->ValueOf("UNSHARP"), 3);
}

TEST(SharpenOperatorTest, ComputesEachMethod) {
  SharpenFixture f;
  // Separable, keeping the incoming range.
  f.Set(SHARPENOPERATOR_SIZE, Int32{7});
  f.Set(SHARPENOPERATOR_AMOUNT, 0.25);
  ASSERT_TRUE(f.Compute());
  Grid2D<Float> separable;
  ASSERT_TRUE(separable.CopyFrom(f.incoming));
  ASSERT_TRUE(Convolution::SeparableSharpen(separable, 7, 0.25));
  ExpectSameSamples(f.Result(), separable);
  EXPECT_EQ(f.Result().Minimum(), f.incoming.Minimum());
  EXPECT_EQ(f.Result().Maximum(), f.incoming.Maximum());

  // A container without the size uses 5.
  ASSERT_TRUE(f.op->GetDataInstance().Remove(SHARPENOPERATOR_SIZE));
  ASSERT_TRUE(f.Compute());
  ASSERT_TRUE(Convolution::SeparableSharpen(f.incoming, separable, 5, 0.25));
  ExpectSameSamples(f.Result(), separable);

  // Kernels, mirrored at the edges.
  f.Set(SHARPENOPERATOR_SIZE, Int32{3});
  std::unique_ptr<Convolution::BaseKernel> kernels[3] = {std::make_unique<Convolution::PresetKernels::Sharpen3x3>(),
                                                         std::make_unique<Convolution::PresetKernels::UnsharpMask5x5>(),
                                                         std::make_unique<Convolution::PresetKernels::UnsharpMask>()};
  ASSERT_TRUE(kernels[0]->Initialize(3));
  ASSERT_TRUE(kernels[1]->Initialize(5));
  ASSERT_TRUE(kernels[2]->Initialize(3));
  for (Int32 type = 1; type <= 3; ++type) {
    f.Set(SHARPENOPERATOR_TYPE, type);
    ASSERT_TRUE(f.Compute());
    Grid2D<Float> expected;
    ASSERT_TRUE(Convolution::Convolve(f.incoming, expected, *kernels[type - 1], OUTOFBOUNDSMODE::MIRROR));
    ExpectSameSamples(f.Result(), expected);
    EXPECT_FALSE(f.Result().IsMinMaxValid());
  }

  // Any other method copies the incoming heights.
  f.Set(SHARPENOPERATOR_TYPE, Int32{6});
  ASSERT_TRUE(f.Compute());
  ExpectSameSamples(f.Result(), f.incoming);
  EXPECT_EQ(f.Result().Maximum(), f.incoming.Maximum());
}

TEST(SharpenOperatorTest, KeepsTheDegenerateSizes) {
  SharpenFixture f;
  f.Set(SHARPENOPERATOR_SIZE, Int32{1});
  ASSERT_TRUE(f.Compute());
  for (const Float v : f.Result().Values()) ASSERT_TRUE(std::isnan(v));
  f.Set(SHARPENOPERATOR_SIZE, Int32{0});
  EXPECT_EQ(f.Compute().error().message, "Can't initialize kernel with size 0!");
  f.Set(SHARPENOPERATOR_TYPE, Int32{3});
  EXPECT_EQ(f.Compute().error().message, "Can't initialize kernel with size 0!");
  f.Set(SHARPENOPERATOR_TYPE, Int32{1});
  EXPECT_TRUE(f.Compute());  // the fixed kernels ignore the size

  // Amounts above 1 keep the centre at 1.5: still a constant-preserving kernel.
  Grid2D<Float> flat;
  ASSERT_TRUE(flat.Init(6, 6, 1.0, 1.0));
  for (Float& v : flat.Values()) v = 2.0;
  f.Set(SHARPENOPERATOR_TYPE, Int32{0});
  f.Set(SHARPENOPERATOR_SIZE, Int32{9});
  f.Set(SHARPENOPERATOR_AMOUNT, 4.0);
  ASSERT_TRUE(f.Data().Compute(flat, *f.op, *f.doc, f.context));
  for (const Float v : f.Result().Values()) ASSERT_NEAR(v, 2.0, 1e-12);

  Grid2D<Float> empty;
  ASSERT_TRUE(empty.Init(3, 0, 1.0, 1.0));
  EXPECT_EQ(f.Data().Compute(empty, *f.op, *f.doc, f.context).error().message, "Can't sharpen a grid with size 0!");
}

TEST(SharpenOperatorTest, ABreakOfTheEvaluationThreadCancelsTheSeparablePasses) {
  SharpenFixture f;
  CancellationToken thread;
  thread.Cancel();
  f.context.thread = &thread;
  for (const Int32 size : {3, 11}) {
    f.Set(SHARPENOPERATOR_SIZE, size);
    const Status status = f.Compute();
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().message, "Vertical Sharpen pass cancelled!");
    EXPECT_EQ(status.error().kind, ErrorKind::Cancelled);
  }
}

TEST(SharpenOperatorTest, InAStackParameterChangesRecomputeItAndBlendChangesDoNot) {
  TerrainHarness h;
  h.AddGenerator("base", 1.0);  // heights 1 + column
  Node* sharpen = h.AddOperator(ID_SHARPENOPERATOR, "sharpen");
  h.Set(sharpen, TERRAINOPERATOR_BLENDMODE, Int32{0});
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "base sharpen");
  // Size 3, amount 0: (-1 5 -1) / 3 per pass. A ramp stays a ramp inside; at the clamped
  // border the missing slope is sharpened away: (-1 x 1 + 5 x 1 - 1 x 2) / 3 at column 0.
  EXPECT_NEAR(h.Height(4, 4), 5.0, 1e-12);
  EXPECT_NEAR(h.Height(0, 4), 2.0 / 3.0, 1e-12);

  h.Set(sharpen, SHARPENOPERATOR_AMOUNT, 1.0);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "sharpen");
  EXPECT_NEAR(h.Height(0, 4), 1.0 - 1.0, 1e-12);  // (-1 3 -1): (-1 + 3 - 2) / 1

  h.Set(sharpen, TERRAINOPERATOR_STRENGTH, 0.25);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "");

  h.Set(sharpen, SHARPENOPERATOR_TYPE, Int32{2});
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "sharpen");
}

}  // namespace
