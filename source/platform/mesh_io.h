#pragma once

#include <filesystem>

#include "platform/file_output.h"
#include "platform/geometry.h"
#include "platform/result.h"

namespace platform {

// Exporters of a generated object tree. Our objects live in a left-handed frame (+Y up,
// +Z away from the viewer) with polygons wound clockwise when seen from their front. The
// file formats are right-handed, counter-clockwise: writers store (x, y, -z), reverse the
// winding, and turn texture coordinates so that an image whose bottom line is our v = 0
// drapes over the mesh as it does here (glTF: v' = 1 - v; OBJ and PLY keep v).
//
// Normals are smooth (averaged over the polygons sharing a point, weighted by area) on
// objects that carry a Phong tag, flat otherwise. Child objects and the isoparm outline
// become child nodes; line objects become line primitives where the format has them.

// glTF 2.0 binary: one mesh per polygon object (positions, normals, UVs when a UVW tag is
// present, triangles with 32-bit indices), line objects as LINES primitives, the object
// tree as the node tree with local matrices.
Status WriteGlb(const GeometryObject& root, const std::filesystem::path& path, const WriteControl& control = {});

// Wavefront OBJ: polygons as written (quads stay quads), "vt" per polygon corner when a
// UVW tag is present, "vn" when a Phong tag is present, "l" records for line objects,
// every object a named group ("o"), positions in world space.
Status WriteObj(const GeometryObject& root, const std::filesystem::path& path, const WriteControl& control = {});

// Binary little-endian PLY of the polygon objects in world space (lines are not part of
// the format): x y z (float), nx ny nz when a Phong tag is present, s t when each point
// has one texture coordinate, faces as lists of 3 or 4 uint32 indices.
Status WritePly(const GeometryObject& root, const std::filesystem::path& path, const WriteControl& control = {});

// Chooses the writer from the file ending: .glb, .obj or .ply.
Status WriteGeometry(const GeometryObject& root, const std::filesystem::path& path, const WriteControl& control = {});

}  // namespace platform
