#pragma once

#include "vellgrund/grid2d.h"

namespace VLGD::Convolution {}  // namespace VLGD::Convolution
