#pragma once

#include <filesystem>
#include <span>

#include "platform/file_output.h"
#include "platform/result.h"
#include "platform/types.h"

namespace platform {

// Writes a NumPy .npy file (format 1.0): little-endian float64, C order, shape
// (rows, columns), row 0 first.
Status WriteNpy(const std::filesystem::path& path, std::span<const Float> values, Int rows, Int columns,
                const WriteControl& control = {});

}  // namespace platform
