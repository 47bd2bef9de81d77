#include <string>

#include "platform/file_output.h"
#include "platform/mesh_io.h"

namespace platform {

Status WriteGeometry(const GeometryObject& root, const std::filesystem::path& path, const WriteControl& control,
                     const MeshMaterial* material) {
  const std::string ending = LowerCaseEnding(path);
  if (ending == ".glb") return WriteGlb(root, path, control, material);
  if (ending == ".obj") return WriteObj(root, path, control);
  if (ending == ".ply") return WritePly(root, path, control);
  if (ending.empty()) {
    return IllegalArgumentError("Cannot write \"" + path.string() +
                                "\": the file has no ending; use .glb, .obj or .ply!");
  }
  return IllegalArgumentError("Cannot write \"" + path.string() + "\": unknown file ending \"" +
                              path.extension().string() + "\"; use .glb, .obj or .ply!");
}

}  // namespace platform
