#include "vellgrund/filter_loops.h"

#include <new>

namespace VLGD {

bool AppendRebuildParameters(std::vector<ParameterId>& ids, std::initializer_list<ParameterId> list) {
  try {
    ids.insert(ids.end(), list);
  } catch (const std::bad_alloc&) {
    ids.clear();
    return false;
  }
  return true;
}

}  // namespace VLGD
