# What a library of the host contract (the plug-in, the host framework library) needs so that a
# host can unload it with dlclose and load it afresh:
#   - no STB_GNU_UNIQUE symbols: the dynamic loader never unloads a library that defines one
#     (header-only Boost.System's error categories would be such);
#   - hidden symbols and an export list of the vorn classes only (vorn.map), so that no other
#     library binds to, and so comes to depend on, the vague-linkage code this one carries;
#   - vtables and type information bound inside the library (vorn.dynamic), so that it does not
#     bind to, and so come to depend on, a host module that carries copies of its own.
add_library(ta_kvx_unloadable INTERFACE)
target_compile_options(ta_kvx_unloadable INTERFACE -fvisibility=hidden -fvisibility-inlines-hidden
  $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)
target_link_options(ta_kvx_unloadable INTERFACE
  "LINKER:--version-script=${CMAKE_CURRENT_LIST_DIR}/vorn.map"
  "LINKER:--dynamic-list=${CMAKE_CURRENT_LIST_DIR}/vorn.dynamic")
set_property(TARGET ta_kvx_unloadable APPEND PROPERTY INTERFACE_LINK_DEPENDS
  "${CMAKE_CURRENT_LIST_DIR}/vorn.map" "${CMAKE_CURRENT_LIST_DIR}/vorn.dynamic")
