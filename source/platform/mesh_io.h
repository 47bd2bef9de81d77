#pragma once

#include <filesystem>
#include <string>

#include "platform/file_output.h"
#include "platform/geometry.h"
#include "platform/image.h"
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

// A metallic-roughness material with its textures, for the polygon meshes of a glTF
// binary. The images are borrowed for the write. Textures map through the objects' UVW
// tags like a height map does: v = 0 is the image's bottom line.
struct MeshMaterial {
  std::string name;
  // Required: 8-bit RGB or RGBA, sRGB colours, row 0 the top line. The material is
  // opaque: alpha is kept in the file but not drawn.
  const Image* baseColor = nullptr;
  // Optional: 8-bit RGB tangent-space normals, +Y (green) pointing up the texture.
  const Image* normalMap = nullptr;
  double roughness = 1.0;  // 0 .. 1
  double metallic = 0.0;   // 0 .. 1
};

// glTF 2.0 binary: one mesh per polygon object (positions, normals, UVs when a UVW tag is
// present, triangles with 32-bit indices), line objects as LINES primitives, the object
// tree as the node tree with local matrices.
// With a `material`, every polygon primitive uses it and its textures are embedded as PNG
// in the binary chunk (linear filtering with mipmaps, repeating); line primitives keep
// the viewer's default. Every polygon object then needs a UVW tag. Textures have at most
// 16384 pixels a side; a material that breaks its rules is refused before anything is
// encoded.
Status WriteGlb(const GeometryObject& root, const std::filesystem::path& path, const WriteControl& control = {},
                const MeshMaterial* material = nullptr);

// Wavefront OBJ: polygons as written (quads stay quads), "vt" per polygon corner when a
// UVW tag is present, "vn" when a Phong tag is present, "l" records for line objects,
// every object a named group ("o"), positions in world space.
Status WriteObj(const GeometryObject& root, const std::filesystem::path& path, const WriteControl& control = {});

// Binary little-endian PLY of the polygon objects in world space (lines are not part of
// the format): x y z (float), nx ny nz when a Phong tag is present, s t when each point
// has one texture coordinate, faces as lists of 3 or 4 uint32 indices.
Status WritePly(const GeometryObject& root, const std::filesystem::path& path, const WriteControl& control = {});

// Chooses the writer from the file ending: .glb, .obj or .ply. Only .glb takes the
// `material`; the other formats leave it out.
Status WriteGeometry(const GeometryObject& root, const std::filesystem::path& path, const WriteControl& control = {},
                     const MeshMaterial* material = nullptr);

}  // namespace platform
