#pragma once

// What the two halves of the hydraulic erosion share: the simulation's driver
// (erosion_hydraulic.cpp) and its sweep over bands of rows (erosion_hydraulic_sweep.cpp).

#include "platform/types.h"

namespace VLGD::Erosion::detail {

inline constexpr Float kStep = 16.666666666666668;         // T, the time step of an iteration
inline constexpr Float kSourceRate = 0.16666666666666669;  // R
inline constexpr Float kRainAmount = 0.0625;
inline constexpr int kRainDrops = 1000;
inline constexpr platform::UInt32 kRainSeed = 123;
inline constexpr Int kSourceRadius = 30;
inline constexpr Int kScratchRows = 38;
inline constexpr const char* kInvalidShape = "Invalid grid initialization arguments!";
inline constexpr const char* kCancelled = "Hydraulic Erosion cancelled!";

}  // namespace VLGD::Erosion::detail
