#pragma once

#include "platform/cancellation.h"
#include "platform/progress.h"
#include "platform/types.h"
#include "vellgrund/grid2d.h"

// Droplets of water that run down the terrain, picking up material where they speed up
// downhill and taking it from the cell they leave.
namespace VLGD::Erosion {

using platform::UInt32;
using platform::UInt64;

struct DropletSettings {
  UInt32 seed = 1234;
  Int32 count = 5000;       // droplets; 0 or less changes nothing
  Float deposition = 0.03;  // how fast a droplet's load approaches its capacity
  Float friction = 0.7;     // velocity lost per step, scaled by the time step
};

// Runs the droplets one after the other on the calling thread: each starts at a random
// point (row drawn before column), follows the surface normal of its cell and evaporates
// until its volume falls to 0.01 or it leaves the grid. Returns the number of steps taken,
// for throughput figures. Makes no allocation; a non-finite height stops the droplets
// that reach it instead of sending them outside the grid.
//
// The break flag is tested before every droplet (a droplet takes at most a few thousand
// steps) and the run stops there when it is set; the caller tells the cancellation from
// the flag. Progress is reported in whole percent of the droplets.
UInt64 SimulateDroplets(Grid2D<Float>& grid, const DropletSettings& settings,
                        const platform::CancellationToken* cancel = nullptr, platform::ProgressSink* progress = nullptr);

}  // namespace VLGD::Erosion
