#include "common/vlgd_geometry.h"
#include "commands.h"
#include "platform/mesh_io.h"

namespace vellgrund_cli {

platform::Status RunPlane(const PlaneOptions& options) {
  VLGD_ASSIGN_OR_RETURN(auto plane, VLGD::CreatePlaneGeometry(options.sizeX, options.sizeZ, options.segmentsX,
                                                              options.segmentsZ, options.mode, true, nullptr));
  plane->name = "Plane";
  if (options.phong) VLGD_RETURN_IF_ERROR(plane->AddTag(std::make_unique<platform::PhongTag>()));
  return platform::WriteGeometry(*plane, options.output);
}

}  // namespace vellgrund_cli
