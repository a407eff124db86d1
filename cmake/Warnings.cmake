# Warning flags for the project's own targets (never for system headers).
add_library(ostrel_warnings INTERFACE)
target_compile_options(ostrel_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wnon-virtual-dtor -Woverloaded-virtual -Wimplicit-fallthrough
  -Wno-missing-field-initializers
  $<$<BOOL:${OSTREL_WERROR}>:-Werror>)
