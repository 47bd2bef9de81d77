#include "common/vlgd_geometry.h"
#include "commands.h"
#include "output_files.h"
#include "platform/mesh_io.h"
#include "terminal.h"

namespace vellgrund_cli {

platform::Status RunPlane(const PlaneOptions& options) {
  platform::CancellationToken cancel;
  InterruptScope interrupt(cancel);
  VLGD_RETURN_IF_ERROR(CheckOutputFile(options.output, "-o", {".glb", ".obj", ".ply"}));
  VLGD_ASSIGN_OR_RETURN(auto plane, VLGD::CreatePlaneGeometry(options.sizeX, options.sizeZ, options.segmentsX,
                                                              options.segmentsZ, options.mode, true, &cancel));
  plane->name = "Plane";
  if (options.phong) VLGD_RETURN_IF_ERROR(plane->AddTag(std::make_unique<platform::PhongTag>()));
  return platform::WriteGeometry(*plane, options.output, {&cancel, nullptr});
}

}  // namespace vellgrund_cli
