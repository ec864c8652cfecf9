# The project's warning set, attached PRIVATE to every target of ours.
add_library(ta_kvx_warnings INTERFACE)
target_compile_options(ta_kvx_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
  $<$<BOOL:${TA_KVX_WARNINGS_AS_ERRORS}>:-Werror>)
