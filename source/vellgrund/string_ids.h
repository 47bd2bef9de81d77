#pragma once

#include "platform/types.h"

namespace VLGD {

// The texts the engine shows, by their IDs in res/strings/strings.json; the IDs are stored
// in translations, so they never change.
enum StringId : platform::Int32 {
  STRING_BANNER = 10016,             // the start-up line under the version
  STRING_MEMORY = 10022,             // "Memory: #"
  STRING_UNIT_BYTES = 10024,         // then KB, MB and GB at 10025 .. 10027
  STRING_CALCULATING = 10028,        // the memory field while a build runs
  STRING_EXPORT_TITLE = 10029,       // the title of the export file dialog
  STRING_EXPORT_RAW = 10030,         // the file-name ending of a raw export
  STRING_EXPORT_NORMALIZED = 10031,  // ... and of a normalised one
  STRING_EXPORT_FAILED = 10033,
  STRING_EVALUATING = 10071,  // "Evaluating #..."
  STRING_CHANGE_MAP = 10073,
  STRING_BUILDING_MESH = 10084,  // "Building the mesh of #..."
};

}  // namespace VLGD
