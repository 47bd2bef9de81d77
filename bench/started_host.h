#pragma once

#include <cstdlib>

#include "main/vellgrund_module.h"
#include "platform/console.h"
#include "platform/host.h"

namespace vellgrund_bench {

// One host with the module started, shared by the benchmarks of a program that load scenes.
inline platform::Host& StartedHost() {
  struct Started {
    Started() {
      host.SetConsole(console);
      if (!VLGD::StartModule(host)) std::abort();
    }
    platform::CollectingConsole console;
    platform::Host host;
  };
  static Started started;
  return started.host;
}

}  // namespace vellgrund_bench
