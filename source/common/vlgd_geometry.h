#pragma once

#include <memory>

#include "platform/cancellation.h"
#include "platform/geometry.h"
#include "platform/node.h"
#include "platform/result.h"
#include "platform/types.h"

namespace VLGD {

enum class PLANETESSELATIONMODE : platform::Int32 {
  QUADS = 0,
  TRIS1 = 1,  // cells split along the diagonal from the cell's first corner to its last
  TRIS2 = 2,  // cells split along the other diagonal
};

// A flat plane of segX x segZ cells over sizeX x sizeZ, centred on the origin: points row by
// row from +Z to -Z, each row from -X to +X, so point k matches grid sample k. `mode` is a
// stored PLANETESSELATIONMODE value; anything but TRIS1 and TRIS2 gives quads. With
// createUVW every polygon corner gets (column / segX, row / segZ, 0). A break requested on
// `thread` ends the build with an error.
platform::Result<std::unique_ptr<platform::PolygonObject>> CreatePlaneGeometry(
    platform::Float sizeX, platform::Float sizeZ, platform::Int32 segX, platform::Int32 segZ, platform::Int32 mode,
    bool createUVW, const platform::CancellationToken* thread);

// The current state of `object` as a separate editable object: a clone of it is built in a
// temporary document and its result is placed with `object`'s global matrix.
platform::Result<std::shared_ptr<platform::GeometryObject>> GetCurrentState(const platform::Node* object,
                                                                            const platform::HierarchyHelp& help);

}  // namespace VLGD
