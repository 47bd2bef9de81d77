#include "platform/enumerations.h"

#include <algorithm>
#include <new>

namespace platform {

std::optional<Int> Enumeration::ValueOf(std::string_view member) const {
  for (const EnumMember& candidate : members)
    if (candidate.name == member) return candidate.value;
  return std::nullopt;
}

std::optional<std::string> Enumeration::NameOf(Int value) const {
  for (const EnumMember& candidate : members)
    if (candidate.value == value) return candidate.name;
  if (!isFlagSet || value <= 0) return std::nullopt;
  // A combination of bits: every bit must have a member.
  std::string joined;
  Int rest = value;
  for (const EnumMember& candidate : members) {
    if (candidate.value <= 0 || (candidate.value & (candidate.value - 1)) != 0) continue;
    if ((rest & candidate.value) == 0) continue;
    if (!joined.empty()) joined += '|';
    joined += candidate.name;
    rest &= ~candidate.value;
  }
  if (rest != 0) return std::nullopt;
  return joined;
}

Status EnumRegistry::Register(Enumeration enumeration) {
  if (Find(enumeration.name) != nullptr)
    return IllegalArgumentError("The enumeration " + enumeration.name + " is already registered!");
  try {
    enumerations_.push_back(std::move(enumeration));
  } catch (const std::bad_alloc&) {
    return OutOfMemoryError();
  }
  return Ok();
}

const Enumeration* EnumRegistry::Find(std::string_view name) const {
  const auto found = std::find_if(enumerations_.begin(), enumerations_.end(),
                                  [&](const Enumeration& candidate) { return candidate.name == name; });
  return found != enumerations_.end() ? &*found : nullptr;
}

}  // namespace platform
