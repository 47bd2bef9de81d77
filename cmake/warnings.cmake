# Applied to every target of ours; third-party headers come in as system includes.
# -Wno-missing-field-initializers: g++ 12 warns about members a designated initializer
# leaves out, and leaving out members that keep their defaults is why we use them.
add_library(vellgrund_warnings INTERFACE)
target_compile_options(vellgrund_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
  -Wimplicit-fallthrough -Wcast-align -Wdouble-promotion -Wno-missing-field-initializers
  $<$<BOOL:${VELLGRUND_WERROR}>:-Werror>)
