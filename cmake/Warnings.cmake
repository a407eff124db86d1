# Warning flags for the project's own targets (never for system headers).
add_library(ostrel_warnings INTERFACE)
target_compile_options(ostrel_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wnon-virtual-dtor -Woverloaded-virtual -Wimplicit-fallthrough
  -Wno-missing-field-initializers
  # g++ 12 reports -Wrestrict on ordinary std::string concatenation at -O2/-O3 (a known false
  # positive in its libstdc++ headers); clang has no such warning.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
  $<$<BOOL:${OSTREL_WERROR}>:-Werror>)
