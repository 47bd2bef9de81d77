#include "object/operator_blur.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>

#include "main/vellgrund_module.h"
#include "platform/description.h"
#include "platform/document.h"
#include "platform/scene_file.h"
#include "support/terrain_harness.h"
#include "vellgrund/convolution.h"

namespace {

using namespace platform;
using namespace VLGD;
using testing_support::TerrainHarness;

// One Blur operator in a document, computed directly on a grid.
struct BlurFixture {
  BlurFixture() {
    host.SetConsole(console);
    EXPECT_TRUE(StartModule(host));
    doc = std::make_unique<Document>(host);
    auto created = doc->CreateNode(ID_BLUROPERATOR);
    EXPECT_TRUE(created);
    op = doc->InsertLast(std::move(*created));
    std::mt19937_64 engine(5);
    std::uniform_real_distribution<Float> uniform(0.0, 10.0);
    EXPECT_TRUE(incoming.Init(11, 9, 10.0, 8.0));
    for (Float& v : incoming.Values()) v = uniform(engine);
    incoming.RecomputeRange();
  }
  BaseTerrainOperatorData& Data() { return *op->GetNodeData<BaseTerrainOperatorData>(); }
  Status Compute() { return Data().Compute(incoming, *op, *doc, context); }
  const Grid2D<Float>& Result() { return Data().GetResult(); }

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

TEST(BlurOperatorTest, DefaultsFlagsEnablingAndRelevantParameters) {
  BlurFixture f;
  EXPECT_EQ(f.op->GetData().GetInt32(BLUROPERATOR_RADIUS, -1), 2);
  EXPECT_EQ(f.op->GetData().GetInt32(BLUROPERATOR_TYPE, -1), 0);
  EXPECT_EQ(f.Data().GetFlags(*f.op), TERRAINOPERATORFLAGS::TYPE_FILTER);
  std::vector<ParameterId> ids;
  EXPECT_TRUE(f.Data().GetRebuildParameters(ids, f.op->GetData()));
  EXPECT_EQ(ids, (std::vector<ParameterId>{BLUROPERATOR_RADIUS, BLUROPERATOR_TYPE}));

  for (const Int32 type : {0, 1, 2, 3, 7}) {
    ASSERT_TRUE(f.doc->SetParameter(*f.op, BLUROPERATOR_TYPE, type));
    EXPECT_EQ(IsParameterEnabled(*f.op, BLUROPERATOR_RADIUS), type != 2 && type != 3) << type;
    EXPECT_TRUE(IsParameterEnabled(*f.op, BLUROPERATOR_TYPE));
    EXPECT_TRUE(IsParameterEnabled(*f.op, TERRAINOPERATOR_STRENGTH));
  }

  const Enumeration* types = f.host.GetRegistry().Enumerations().Find("BLURTYPE");
  ASSERT_NE(types, nullptr);
  EXPECT_EQ(types->ValueOf("BOX"), 0);
  EXPECT_EQ(types->ValueOf("GAUSS"), 1);
  EXPECT_EQ(types->ValueOf("GAUSS3X3"), 2);
  EXPECT_EQ(types->ValueOf("GAUSS5X5"), 3);
}

TEST(BlurOperatorTest, ReadConvertsScenesOfDiskLevelZero) {
  BlurFixture f;
  ParameterContainer& data = f.op->GetDataInstance();
  ASSERT_TRUE(data.Set(BLUROPERATOR_TYPE, Int32{4}));  // the old Gaussian
  ASSERT_TRUE(data.Set(BLUROPERATOR_RADIUS, Int32{9}));
  EXPECT_TRUE(f.Data().Read(*f.op, 0));
  EXPECT_EQ(data.GetInt32(BLUROPERATOR_TYPE), 1);
  EXPECT_EQ(data.GetInt32(BLUROPERATOR_RADIUS), 9);

  ASSERT_TRUE(data.Set(BLUROPERATOR_TYPE, Int32{0}));  // a box kept its diameter
  EXPECT_TRUE(f.Data().Read(*f.op, 0));
  EXPECT_EQ(data.GetInt32(BLUROPERATOR_RADIUS), 4);
  EXPECT_EQ(data.GetInt32(BLUROPERATOR_TYPE), 0);

  ASSERT_TRUE(data.Set(BLUROPERATOR_TYPE, Int32{3}));
  EXPECT_TRUE(f.Data().Read(*f.op, 0));
  EXPECT_EQ(data.GetInt32(BLUROPERATOR_RADIUS), 4);

  ASSERT_TRUE(data.Set(BLUROPERATOR_TYPE, Int32{4}));  // other levels: nothing
  ASSERT_TRUE(data.Set(BLUROPERATOR_RADIUS, Int32{9}));
  EXPECT_TRUE(f.Data().Read(*f.op, 1));
  EXPECT_EQ(data.GetInt32(BLUROPERATOR_TYPE), 4);
  EXPECT_EQ(data.GetInt32(BLUROPERATOR_RADIUS), 9);

  // Through a scene file that names its level.
  auto scene = LoadScene(f.host, R"json({"vellgrund": 1, "objects": [
      {"type": "obluroperator", "name": "old", "level": 0, "params": {"BLUROPERATOR_RADIUS": 7}},
      {"type": "obluroperator", "name": "new", "level": 1, "params": {"BLUROPERATOR_RADIUS": 7}}]})json",
                         "scene.json");
  ASSERT_TRUE(scene) << scene.error().message;
  EXPECT_EQ((*scene)->FindByName("old")->GetData().GetInt32(BLUROPERATOR_RADIUS), 3);
  EXPECT_EQ((*scene)->FindByName("new")->GetData().GetInt32(BLUROPERATOR_RADIUS), 7);
}

TEST(BlurOperatorTest, ComputesTheBoxBlurOrTheGaussianKernels) {
  BlurFixture f;
  // Box (and unknown types) of diameter 2 radius + 1, keeping the incoming range.
  for (const Int32 type : {0, 9}) {
    ASSERT_TRUE(f.doc->SetParameter(*f.op, BLUROPERATOR_TYPE, type));
    ASSERT_TRUE(f.doc->SetParameter(*f.op, BLUROPERATOR_RADIUS, Int32{3}));
    ASSERT_TRUE(f.Compute());
    Grid2D<Float> expected;
    ASSERT_TRUE(expected.CopyFrom(f.incoming));
    ASSERT_TRUE(Convolution::BoxBlur(expected, 7));
    ExpectSameSamples(f.Result(), expected);
    EXPECT_TRUE(f.Result().IsMinMaxValid());
    EXPECT_EQ(f.Result().Minimum(), f.incoming.Minimum());
    EXPECT_EQ(f.Result().Maximum(), f.incoming.Maximum());
    EXPECT_EQ(f.Result().SizeY(), 8.0);
  }
  // A container without the radius blurs with radius 5.
  ASSERT_TRUE(f.op->GetDataInstance().Remove(BLUROPERATOR_RADIUS));
  ASSERT_TRUE(f.Compute());
  Grid2D<Float> fallback;
  ASSERT_TRUE(Convolution::BoxBlur(f.incoming, fallback, 11));
  ExpectSameSamples(f.Result(), fallback);

  // Gaussian kernels, mirrored at the edges, range unknown.
  ASSERT_TRUE(f.doc->SetParameter(*f.op, BLUROPERATOR_RADIUS, Int32{4}));
  std::unique_ptr<Convolution::BaseKernel> kernels[3] = {std::make_unique<Convolution::PresetKernels::GaussBlur>(),
                                                         std::make_unique<Convolution::PresetKernels::GaussBlur3x3>(),
                                                         std::make_unique<Convolution::PresetKernels::GaussBlur5x5>()};
  ASSERT_TRUE(kernels[0]->Build(4, nullptr));
  ASSERT_TRUE(kernels[1]->Initialize(3));
  ASSERT_TRUE(kernels[2]->Initialize(5));
  for (Int32 type = 1; type <= 3; ++type) {
    ASSERT_TRUE(f.doc->SetParameter(*f.op, BLUROPERATOR_TYPE, type));
    ASSERT_TRUE(f.Compute());
    Grid2D<Float> expected;
    ASSERT_TRUE(Convolution::Convolve(f.incoming, expected, *kernels[type - 1], OUTOFBOUNDSMODE::MIRROR));
    ExpectSameSamples(f.Result(), expected);
    EXPECT_FALSE(f.Result().IsMinMaxValid());
  }
}

TEST(BlurOperatorTest, KeepsTheDegenerateRadii) {
  BlurFixture f;
  ASSERT_TRUE(f.doc->SetParameter(*f.op, BLUROPERATOR_RADIUS, Int32{0}));
  ASSERT_TRUE(f.Compute());  // box of diameter 1: unchanged
  ExpectSameSamples(f.Result(), f.incoming);

  ASSERT_TRUE(f.doc->SetParameter(*f.op, BLUROPERATOR_TYPE, Int32{1}));
  ASSERT_TRUE(f.Compute());  // Gaussian of radius 0: 0 / 0
  for (const Float v : f.Result().Values()) ASSERT_TRUE(std::isnan(v));

  ASSERT_TRUE(f.doc->SetParameter(*f.op, BLUROPERATOR_TYPE, Int32{0}));
  for (const Int32 radius : {-1, -2, -6}) {
    ASSERT_TRUE(f.doc->SetParameter(*f.op, BLUROPERATOR_RADIUS, radius));
    ASSERT_TRUE(f.Compute());  // a negative diameter sums no tap
    for (const Float v : f.Result().Values()) ASSERT_EQ(v, 0.0) << radius;
  }
  ASSERT_TRUE(f.doc->SetParameter(*f.op, BLUROPERATOR_TYPE, Int32{1}));
  EXPECT_EQ(f.Compute().error().message, "Can't initialize kernel with a negative size!");

  Grid2D<Float> empty;
  ASSERT_TRUE(empty.Init(0, 0, 1.0, 1.0));
  ASSERT_TRUE(f.doc->SetParameter(*f.op, BLUROPERATOR_TYPE, Int32{0}));
  const Status failed = f.Data().Compute(empty, *f.op, *f.doc, f.context);
  ASSERT_FALSE(failed);
  EXPECT_EQ(failed.error().message, "Can't BluxBlur a grid with size 0!");
}

TEST(BlurOperatorTest, ABreakOfTheEvaluationThreadCancelsTheBoxBlur) {
  BlurFixture f;
  CancellationToken thread;
  f.context.thread = &thread;
  ASSERT_TRUE(f.Compute());
  thread.Cancel();
  for (const Int32 radius : {1, 4}) {
    ASSERT_TRUE(f.doc->SetParameter(*f.op, BLUROPERATOR_RADIUS, radius));
    const Status status = f.Compute();
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().message, "Vertical BoxBlur pass cancelled!");
    EXPECT_EQ(status.error().kind, ErrorKind::Cancelled);
  }
  ASSERT_TRUE(f.doc->SetParameter(*f.op, BLUROPERATOR_TYPE, Int32{1}));
  EXPECT_TRUE(f.Compute());  // the convolution does not test for a break
}

TEST(BlurOperatorTest, InAStackParameterChangesRecomputeItAndBlendChangesDoNot) {
  TerrainHarness h;
  h.AddGenerator("base", 1.0);  // heights 1 + column
  Node* blur = h.AddOperator(ID_BLUROPERATOR, "blur");
  h.Set(blur, TERRAINOPERATOR_BLENDMODE, Int32{0});  // NORMAL: the blurred terrain replaces it
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "base blur");
  // Radius 2 along a ramp: unchanged inside, the clamped edge pulls the border up.
  EXPECT_DOUBLE_EQ(h.Height(4, 3), 5.0);
  EXPECT_DOUBLE_EQ(h.Height(0, 0), 1.0 + (0.0 + 0.0 + 0.0 + 1.0 + 2.0) / 5.0);

  h.Set(blur, BLUROPERATOR_RADIUS, Int32{1});
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "blur");
  EXPECT_DOUBLE_EQ(h.Height(0, 0), 1.0 + 1.0 / 3.0);

  h.Set(blur, TERRAINOPERATOR_STRENGTH, 0.5);
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "");
  EXPECT_NEAR(h.Height(0, 0), 0.5 * 1.0 + 0.5 * (1.0 + 1.0 / 3.0), 1e-12);

  h.Set(blur, BLUROPERATOR_TYPE, Int32{2});
  ASSERT_TRUE(h.Rebuild());
  EXPECT_EQ(h.Rebuilt(), "blur");
}

}  // namespace
