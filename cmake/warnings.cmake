# Applied to every target of ours; third-party headers come in as system includes.
add_library(vellgrund_warnings INTERFACE)
target_compile_options(vellgrund_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
  -Wimplicit-fallthrough -Wcast-align -Wdouble-promotion
  $<$<BOOL:${VELLGRUND_WERROR}>:-Werror>)
