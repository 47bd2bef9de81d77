#include "platform/spline_objects.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/document.h"
#include "platform/host.h"
#include "platform/node.h"
#include "platform/scene_file.h"

namespace {

using namespace platform;

std::string Scene(const std::string& params) {
  return R"({"vellgrund": 1, "objects": [{"type": "ospline", "name": "Road", "position": [10, 0, 5], "params": {)" +
         params + "}}]}";
}

TEST(SplineObjectTest, PointsTypeAndMatrixSurviveTheSceneFile) {
  Host host;
  const std::string text = Scene(R"("SPLINEOBJECT_TYPE": "BEZIER", "SPLINEOBJECT_CLOSED": true,
      "SPLINEOBJECT_POINTS": {"points": [
        {"position": [0, 1, 0], "left": [-1, 0, 0], "right": [1, 0, 0.5]},
        {"position": [10, 2.5, -3]},
        {"position": [1e-3, -4, 7], "right": [0, 0, 2]}]})");
  auto loaded = LoadScene(host, text, "splines.json");
  ASSERT_TRUE(loaded) << loaded.error().message;
  const Node* spline = (*loaded)->GetFirstObject();
  ASSERT_NE(spline, nullptr);
  ASSERT_NE(spline->GetNodeData<SplineObjectData>(), nullptr);
  EXPECT_EQ(spline->GetData().GetInt32(SPLINEOBJECT_TYPE), static_cast<Int32>(SPLINETYPE::BEZIER));
  EXPECT_TRUE(spline->GetData().GetBool(SPLINEOBJECT_CLOSED));
  EXPECT_EQ(spline->GetMl().off, Vector(10.0, 0.0, 5.0));
  const SplinePath* path = spline->GetData().GetSplinePath(SPLINEOBJECT_POINTS);
  ASSERT_NE(path, nullptr);
  ASSERT_EQ(path->points.size(), 3u);
  EXPECT_EQ(path->points[0], (SplinePoint{{0, 1, 0}, {-1, 0, 0}, {1, 0, 0.5}}));
  EXPECT_EQ(path->points[1], (SplinePoint{{10, 2.5, -3}, {}, {}}));  // missing tangents are zero
  EXPECT_EQ(path->points[2].right, Vector(0, 0, 2));

  Vector centre, radius;
  spline->GetNodeData<SplineObjectData>()->GetDimension(*spline, centre, radius);
  EXPECT_EQ(centre, Vector(4.5, -0.75, 3.0));  // x -1 .. 10, y -4 .. 2.5, z -3 .. 9 with the handles
  EXPECT_EQ(radius, Vector(5.5, 3.25, 6.0));

  auto saved = SaveScene(**loaded);
  ASSERT_TRUE(saved) << saved.error().message;
  auto reloaded = LoadScene(host, *saved, "saved.json");
  ASSERT_TRUE(reloaded) << reloaded.error().message;
  EXPECT_TRUE(DocumentsEqual(**loaded, **reloaded));
  EXPECT_EQ(SaveScene(**reloaded).value_or(""), *saved);

  // A moved point is a different document.
  SplinePath moved = *path;
  moved.points[1].position.y += 1e-9;
  ASSERT_TRUE((*reloaded)->GetFirstObject()->SetParameter(SPLINEOBJECT_POINTS, moved));
  EXPECT_FALSE(DocumentsEqual(**loaded, **reloaded));
}

TEST(SplineObjectTest, BadPointsAreRefusedNamingThePointAndKey) {
  Host host;
  const struct {
    const char* params;
    const char* message;
  } cases[] = {
      {R"("SPLINEOBJECT_POINTS": [[0, 0, 0]])", "expected {\"points\": [...]}, not an array"},
      {R"("SPLINEOBJECT_POINTS": {"pts": []})", "unknown key 'pts'"},
      {R"("SPLINEOBJECT_POINTS": {"points": {}})", "'points': expected an array"},
      {R"("SPLINEOBJECT_POINTS": {"points": [3]})", "point 0: expected an object"},
      {R"("SPLINEOBJECT_POINTS": {"points": [{"left": [0, 0, 0]}]})", "point 0: 'position' is missing"},
      {R"("SPLINEOBJECT_POINTS": {"points": [{"position": [0, 0, 0]}, {"position": [1, 2]}]})",
       "point 1: 'position': expected [x, y, z]"},
      {R"("SPLINEOBJECT_POINTS": {"points": [{"position": [0, "a", 0]}]})",
       "point 0: 'position': expected [x, y, z] numbers"},
      {R"("SPLINEOBJECT_POINTS": {"points": [{"position": [0, 0, 0], "right": [0, 1e300, 0]}]})",
       "point 0: 'right': [0,1e+300,0] lies beyond"},
      {R"("SPLINEOBJECT_POINTS": {"points": [{"position": [0, 0, 0], "tangent": [0, 0, 0]}]})",
       "point 0: unknown key 'tangent'"},
      {R"("SPLINEOBJECT_TYPE": "CUBIC")", "'CUBIC' is not a member of SPLINETYPE (valid: LINEAR, BEZIER)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.params);
    const auto loaded = LoadScene(host, Scene(c.params), "bad.json");
    ASSERT_FALSE(loaded);
    EXPECT_NE(loaded.error().message.find("'Road'"), std::string::npos) << loaded.error().message;
    EXPECT_NE(loaded.error().message.find(c.message), std::string::npos) << loaded.error().message;
  }
}

}  // namespace
