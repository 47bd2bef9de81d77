#include <algorithm>
#include <cctype>
#include <string>

#include "platform/mesh_io.h"

namespace platform {

Status WriteGeometry(const GeometryObject& root, const std::filesystem::path& path) {
  std::string ending;
  try {
    ending = path.extension().string();
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError("Out of memory writing \"" + path.string() + "\"!");
  }
  std::transform(ending.begin(), ending.end(), ending.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (ending == ".glb") return WriteGlb(root, path);
  if (ending == ".obj") return WriteObj(root, path);
  if (ending == ".ply") return WritePly(root, path);
  if (ending.empty()) {
    return IllegalArgumentError("Cannot write \"" + path.string() +
                                "\": the file has no ending; use .glb, .obj or .ply!");
  }
  return IllegalArgumentError("Cannot write \"" + path.string() + "\": unknown file ending \"" +
                              path.extension().string() + "\"; use .glb, .obj or .ply!");
}

}  // namespace platform
