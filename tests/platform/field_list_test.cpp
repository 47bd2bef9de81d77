#include "platform/field_list.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <numbers>
#include <vector>

#include "platform/document.h"
#include "platform/field_objects.h"
#include "platform/host.h"
#include "platform/random.h"
#include "support/test_node_types.h"

namespace platform {
namespace {

constexpr Int32 kPlainObject = testing_support::kTestObjectType;  // an object that is no field

class FieldTest : public ::testing::Test {
 protected:
  FieldTest() { testing_support::RegisterTestNodeTypes(host_); }

  Node* Add(Int32 type, const Matrix& ml = {}, Node* parent = nullptr) {
    auto node = doc_.CreateNode(type);
    EXPECT_TRUE(node) << node.error().message;
    if (!node) return nullptr;
    (*node)->SetMl(ml);
    return doc_.InsertLast(std::move(*node), parent);
  }

  Float At(const FieldList& list, const Vector& position) {
    Float value = -1.0;
    EXPECT_TRUE(list.Sample(doc_, std::span(&position, 1), std::span(&value, 1), {}));
    return value;
  }
  Float At(const Node* field, const Vector& position) {
    FieldList list;
    EXPECT_TRUE(list.AddLayer({.field = field->Identity()}));
    return At(list, position);
  }

  Host host_;
  Document doc_{host_};
};

// Each shape falls off smoothly (t * t * (3 - 2t)) from its centre to its border, the
// linear field as a straight ramp; the node's matrix places, scales and turns the shape.
TEST_F(FieldTest, ShapesFallOffFromCentreToBorderWhereTheMatrixPlacesThem) {
  struct Case {
    const char* what;
    Int32 type;
    std::vector<std::pair<ParameterId, Value>> settings;
    Vector at;
    Float expected;
    Matrix ml = {};
  };
  using Setting = std::pair<ParameterId, Value>;
  const Setting inner{FIELD_INNER_OFFSET, 0.5}, invert{FIELD_INVERT, true}, box{FIELD_SIZE, Vector(100.0, 50.0, 200.0)},
      longBox{FIELD_SIZE, Vector(200.0, 20.0, 20.0)};
  const Int32 sphere = ID_FIELD_SPHERICAL, linear = ID_FIELD_LINEAR;
  const Matrix quarterTurn = RotationMatrix({0.0, 0.0, std::numbers::pi / 2.0});
  const Case cases[] = {
      {"sphere centre", sphere, {}, {}, 1.0},
      {"sphere border", sphere, {}, {0.0, -100.0, 0.0}, 0.0},
      {"sphere at t = 0.75", sphere, {}, {25.0, 0.0, 0.0}, 0.84375},
      {"sphere inside the inner offset", sphere, {inner}, {0.0, 40.0, 0.0}, 1.0},
      {"sphere halfway past the inner offset", sphere, {inner}, {0.0, 75.0, 0.0}, 0.5},
      {"inverted sphere", sphere, {inner, invert}, {}, 0.0},
      {"inverted sphere at NaN", sphere, {inner, invert}, Vector(std::nan("")), 0.0},
      {"empty sphere, inverted", sphere, {invert, {FIELD_RADIUS, 0.0}}, {}, 1.0},
      {"linear beyond the end", linear, {}, {500.0, -70.0, 90.0}, 1.0},
      {"linear ramp", linear, {}, {30.0, 10.0, 25.0}, 0.75},
      {"linear inside the inner offset", linear, {inner}, {}, 1.0},
      {"linear past the inner offset", linear, {inner}, {0.0, 0.0, -25.0}, 0.5},
      {"box, x decides: d = 0.8", ID_FIELD_BOX, {box}, {40.0, 5.0, 10.0}, 0.104},
      {"box, z decides: d = 0.9", ID_FIELD_BOX, {box}, {10.0, 5.0, -90.0}, 0.028},
      {"flat box", ID_FIELD_BOX, {{FIELD_SIZE, Vector(100.0, 0.0, 100.0)}}, {}, 0.0},
      {"moved", sphere, {}, {1000.0, 0.0, 0.0}, 1.0, TranslationMatrix({1000.0, 0.0, 0.0})},
      {"scaled", sphere, {}, {100.0, 0.0, 0.0}, 0.5, ScaleMatrix(Vector(2.0))},
      {"scaled flat: no volume left", sphere, {}, {}, 0.0, ScaleMatrix({1.0, 0.0, 1.0})},
      {"turned: the long axis along +Y", ID_FIELD_BOX, {longBox}, {0.0, 90.0, 0.0}, 0.028, quarterTurn},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Node* field = Add(c.type, c.ml);
    ASSERT_NE(field, nullptr);
    for (const auto& [id, value] : c.settings) ASSERT_TRUE(field->SetParameter(id, value));
    EXPECT_NEAR(At(field, c.at), c.expected, 1e-12);
  }
  // A field is placed in its parent's space.
  Node* child = Add(ID_FIELD_SPHERICAL, {}, Add(kPlainObject, TranslationMatrix({0.0, 500.0, 0.0})));
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(At(child, {0.0, 500.0, 0.0}), 1.0);
}

TEST_F(FieldTest, LayersBlendInOrderAndSkipWhatIsNoField) {
  Node* a = Add(ID_FIELD_SPHERICAL);
  Node* b = Add(ID_FIELD_SPHERICAL, TranslationMatrix({50.0, 0.0, 0.0}));
  Node* plain = Add(kPlainObject);
  ASSERT_TRUE(a && b && plain);
  ASSERT_TRUE(b->SetParameter(FIELD_RADIUS, 200.0));

  // At x = 80 the two values add up beyond 1, at x = -60 they do not.
  for (const Vector p : {Vector(80.0, 0.0, 0.0), Vector(-60.0, 0.0, 0.0)}) {
    SCOPED_TRACE(p.x);
    const Float va = At(a, p), vb = At(b, p);
    ASSERT_GT(va, 0.0);
    ASSERT_LT(va, vb);
    auto two = [&](FieldBlend blend, Float opacity) {
      FieldList list;
      EXPECT_TRUE(list.AddLayer({.field = a->Identity()}));
      EXPECT_TRUE(list.AddLayer({.field = b->Identity(), .opacity = opacity, .blend = blend}));
      return At(list, p);
    };
    EXPECT_DOUBLE_EQ(two(FieldBlend::NORMAL, 0.5), va + (vb - va) * 0.5);
    EXPECT_DOUBLE_EQ(two(FieldBlend::ADD, 1.0), std::min(va + vb, 1.0));
    EXPECT_DOUBLE_EQ(two(FieldBlend::MULTIPLY, 1.0), va * vb);
    EXPECT_DOUBLE_EQ(two(FieldBlend::MAX, 1.0), vb);
    EXPECT_DOUBLE_EQ(two(FieldBlend::MIN, 1.0), va);
    EXPECT_DOUBLE_EQ(two(FieldBlend::MULTIPLY, 7.0), va * vb);  // opacity clamps to 1
  }

  FieldList list;
  ASSERT_TRUE(list.AddLayer({.field = a->Identity()}));
  ASSERT_TRUE(list.AddLayer({.field = plain->Identity(), .blend = FieldBlend::MULTIPLY}));
  ASSERT_TRUE(list.AddLayer({.field = b->Identity(), .blend = FieldBlend::MULTIPLY, .enabled = false}));
  ASSERT_TRUE(list.AddLayer({.field = 987654321, .blend = FieldBlend::MULTIPLY}));
  EXPECT_EQ(At(list, {}), 1.0);
  a->SetEnabled(false);
  EXPECT_EQ(At(list, {}), 0.0);
  a->SetEnabled(true);
  std::unique_ptr<Node> removed = doc_.Remove(*a);
  EXPECT_EQ(At(list, {}), 0.0);
}

TEST_F(FieldTest, DirtyValuesFollowEveryEdit) {
  Node* parent = Add(kPlainObject);
  Node* field = Add(ID_FIELD_BOX, {}, parent);
  ASSERT_TRUE(field);
  FieldList list;
  ASSERT_TRUE(list.AddLayer({.field = field->Identity()}));
  const UInt32 listBefore = list.GetDirty(), layersBefore = list.LayersDirty();
  EXPECT_TRUE(list.SetLayer(0, list.Layers()[0]));  // the same settings still count
  EXPECT_NE(list.LayersDirty(), layersBefore);
  EXPECT_FALSE(list.SetLayer(1, {}) || list.SetLayer(-1, {}) || list.RemoveLayer(1));
  ASSERT_TRUE(list.AddLayer({}));
  EXPECT_TRUE(list.RemoveLayer(1));
  EXPECT_EQ(list.GetDirty(), listBefore + 3);

  // Moves and edits of the linked object, and moves of its parent.
  auto changes = [&](auto edit) {
    const UInt32 linked = list.LinkedObjectsDirty(doc_);
    edit();
    return list.LinkedObjectsDirty(doc_) != linked;
  };
  EXPECT_TRUE(changes([&] { field->SetMl(TranslationMatrix({1.0, 0.0, 0.0})); }));
  EXPECT_TRUE(changes([&] { ASSERT_TRUE(field->SetParameter(FIELD_INVERT, true)); }));
  EXPECT_TRUE(changes([&] { parent->SetMl(TranslationMatrix({0.0, 1.0, 0.0})); }));
  std::unique_ptr<Node> removed = doc_.Remove(*parent);
  EXPECT_EQ(list.LinkedObjectsDirty(doc_), 0u);
}

TEST_F(FieldTest, SamplingIsThreadCountIndependentAndChecksSizes) {
  Node* sphere = Add(ID_FIELD_SPHERICAL, TranslationMatrix({-30.0, 10.0, 0.0}));
  Node* linear = Add(ID_FIELD_LINEAR, RotationMatrix({0.3, 1.1, -0.2}));
  Node* box = Add(ID_FIELD_BOX, RotationMatrix({0.0, 0.7, 0.0}) * ScaleMatrix({1.0, 2.0, 0.5}));
  ASSERT_TRUE(sphere && linear && box);
  ASSERT_TRUE(sphere->SetParameter(FIELD_INNER_OFFSET, 0.2));
  FieldList list;
  ASSERT_TRUE(list.AddLayer({.field = sphere->Identity()}));
  ASSERT_TRUE(list.AddLayer({.field = linear->Identity(), .opacity = 0.7, .blend = FieldBlend::ADD}));
  ASSERT_TRUE(list.AddLayer({.field = box->Identity(), .opacity = 0.9, .blend = FieldBlend::MULTIPLY}));

  std::vector<Vector> positions(100'000);
  Random random(7);
  for (Vector& p : positions) p = Vector(random.Get01(), random.Get01(), random.Get01()) * 300.0 - Vector(150.0);
  const ParallelOptions options{.granularity = 16, .singleThreadBelow = 10001};
  std::vector<Float> serial(positions.size()), parallel(positions.size());
  {
    ScopedThreadLimit one(1);
    ASSERT_TRUE(list.Sample(doc_, positions, serial, options));
  }
  ASSERT_TRUE(list.Sample(doc_, positions, parallel, options));
  EXPECT_EQ(std::memcmp(serial.data(), parallel.data(), serial.size() * sizeof(Float)), 0);
  // Enough samples in the falloffs for the comparison to mean something.
  EXPECT_GT(std::count_if(serial.begin(), serial.end(), [](Float v) { return v > 0.0 && v < 1.0; }), 1000);

  Status mismatch = list.Sample(doc_, positions, std::span(parallel).first(10), options);
  ASSERT_FALSE(mismatch);
  EXPECT_EQ(mismatch.error().kind, ErrorKind::IllegalArgument);
  EXPECT_EQ(mismatch.error().message, "FieldList::Sample(): positions and output differ in size!");
}

}  // namespace
}  // namespace platform
