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
  // The commands' menu names and help lines.
  STRING_GROUP_OPERATORS = 10034,
  STRING_GROUP_OPERATORS_HELP = 10035,
  STRING_UNGROUP_OPERATORS = 10036,
  STRING_UNGROUP_OPERATORS_HELP = 10037,
  STRING_ABOUT = 10038,
  STRING_ABOUT_HELP = 10039,
  STRING_OPEN_HELP = 10040,
  STRING_OPEN_HELP_HELP = 10041,
  STRING_NEXT_BLENDMODE = 10045,
  STRING_NEXT_BLENDMODE_HELP = 10046,
  STRING_PREVIOUS_BLENDMODE = 10047,
  STRING_PREVIOUS_BLENDMODE_HELP = 10048,
  STRING_INCREASE_RESOLUTION = 10049,
  STRING_INCREASE_RESOLUTION_HELP = 10050,
  STRING_DECREASE_RESOLUTION = 10051,
  STRING_DECREASE_RESOLUTION_HELP = 10052,
  STRING_EVALUATING = 10071,  // "Evaluating #..."
  STRING_CHANGE_MAP = 10073,
  STRING_BUILDING_MESH = 10084,  // "Building the mesh of #..."
};

}  // namespace VLGD
