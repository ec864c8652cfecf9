# Installation and the Debian package.
#
# An installed prefix is laid out the way the plug-in is deployed:
#
#   lib/libta_kvx.so, lib/libvorn_host.so, lib/libtarget.agent.so   side by side
#   bin/kvx-ta, bin/kvx-agent-sim
#   lib/python3/dist-packages/ta_kvx/                                the Python package
#   share/man/man1/, share/bash-completion/completions/kvx-ta       their man pages, completion
#   include/{vorn,manager,agent,client}/...
#   lib/cmake/ta_kvx/                                                the CMake package
#
# Two components: `runtime` (libraries and programs, with their man pages and completion) and
# `development` (headers and the CMake package), so `cmake --install <build> --component runtime`
# deploys a target machine. A third, `debian`, is only for the Debian package (see there).

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# lib/ and bin/ are part of the deployment contract rather than a distribution's choice: the
# plug-in finds the closed libraries through DT_RPATH $ORIGIN and the programs find all three
# through $ORIGIN/../lib. So lib/ stays lib/ even where GNUInstallDirs would pick lib/<multiarch>.
set(TA_KVX_INSTALL_LIBDIR lib)
set(TA_KVX_INSTALL_BINDIR bin)
set(TA_KVX_INSTALL_CMAKEDIR "${TA_KVX_INSTALL_LIBDIR}/cmake/ta_kvx")

# ---- Libraries ----

# The contract target carries the include directories and Boost to whoever links the plug-in;
# imported, it is ta_kvx::contract, as its alias in this build.
set_target_properties(ta_kvx_contract PROPERTIES EXPORT_NAME contract)

# The binaries are linked with their install RPATH already (CMAKE_BUILD_WITH_INSTALL_RPATH), so
# installing copies them unchanged and no build-tree path reaches the prefix.
install(TARGETS ta_kvx vorn_host ta_kvx_contract
  EXPORT ta_kvxTargets
  LIBRARY DESTINATION "${TA_KVX_INSTALL_LIBDIR}" COMPONENT runtime)

# The plug-in links the agent library privately, and an exported libta_kvx.so records its private
# shared libraries (so that the linker resolves its DT_NEEDED entries when a host links against
# it); CMake therefore wants the agent library in the export set too. Hosts never link it.
install(TARGETS target_agent
  EXPORT ta_kvxTargets
  LIBRARY DESTINATION "${TA_KVX_INSTALL_LIBDIR}" COMPONENT runtime)

# ---- Programs ----

# Their libraries come from the prefix's lib/, through their $ORIGIN/../lib run path.
install(TARGETS kvx_ta kvx_agent_sim RUNTIME DESTINATION "${TA_KVX_INSTALL_BINDIR}" COMPONENT runtime)

# Beside the programs, under the prefix: man finds <prefix>/share/man through a PATH entry
# <prefix>/bin; bash-completion loads a completion from a directory in XDG_DATA_DIRS.
install(FILES
  "${PROJECT_BINARY_DIR}/share/man/man1/kvx-ta.1"
  "${PROJECT_BINARY_DIR}/share/man/man1/kvx-agent-sim.1"
  DESTINATION "${CMAKE_INSTALL_MANDIR}/man1"
  COMPONENT runtime)
install(FILES "${PROJECT_SOURCE_DIR}/tools/kvx-ta.bash-completion"
  DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions"
  RENAME kvx-ta
  COMPONENT runtime)

# ---- Python package ----

# Where Debian's python3 looks under /usr; under another prefix, PYTHONPATH names the folder.
set(TA_KVX_INSTALL_PYTHONDIR "${TA_KVX_INSTALL_LIBDIR}/python3/dist-packages")
if(TARGET ta_kvx_python)
  # The module's run path leads from its folder to the prefix's lib/ too, ahead of the entry for
  # the build tree (python/CMakeLists.txt), which leads nowhere in a prefix.
  file(RELATIVE_PATH python_to_lib "/${TA_KVX_INSTALL_PYTHONDIR}/ta_kvx" "/${TA_KVX_INSTALL_LIBDIR}")
  string(REGEX REPLACE "/$" "" python_to_lib "${python_to_lib}")
  get_target_property(build_tree_path ta_kvx_python INSTALL_RPATH)
  set_target_properties(ta_kvx_python PROPERTIES INSTALL_RPATH "$ORIGIN/${python_to_lib};${build_tree_path}")
  install(TARGETS ta_kvx_python
    LIBRARY DESTINATION "${TA_KVX_INSTALL_PYTHONDIR}/ta_kvx" COMPONENT runtime)
  install(FILES ${TA_KVX_PYTHON_SOURCES}
    DESTINATION "${TA_KVX_INSTALL_PYTHONDIR}/ta_kvx" COMPONENT runtime)
endif()

# ---- Headers ----

# Installed under the paths the code includes them by, so a host writes
# #include "manager/TaProcessManager.h" against the prefix exactly as inside the repository.
# include/ holds the host contract only and goes whole; the plug-in's folders also hold
# sources, so their public headers are named one by one.
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
  COMPONENT development
  FILES_MATCHING PATTERN "*.h")
install(FILES "${PROJECT_SOURCE_DIR}/manager/TaProcessManager.h"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/manager"
  COMPONENT development)
# TargetAgent.h declares the closed agent library's ten functions and nothing of the plug-in's.
install(FILES
  "${PROJECT_SOURCE_DIR}/agent/KVXConnection.h"
  "${PROJECT_SOURCE_DIR}/agent/TaProcessKVX.h"
  "${PROJECT_SOURCE_DIR}/agent/TargetAgent.h"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/agent"
  COMPONENT development)
install(FILES "${PROJECT_SOURCE_DIR}/client/TargetConfig_TaProcessClient.h"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/client"
  COMPONENT development)

# ---- CMake package ----

install(EXPORT ta_kvxTargets
  NAMESPACE ta_kvx::
  DESTINATION "${TA_KVX_INSTALL_CMAKEDIR}"
  COMPONENT development)
configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/cmake/ta_kvxConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/cmake/ta_kvxConfig.cmake"
  INSTALL_DESTINATION "${TA_KVX_INSTALL_CMAKEDIR}")
# Not ARCH_INDEPENDENT: the package names 64-bit binaries.
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/cmake/ta_kvxConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/cmake/ta_kvxConfig.cmake"
  "${PROJECT_BINARY_DIR}/cmake/ta_kvxConfigVersion.cmake"
  DESTINATION "${TA_KVX_INSTALL_CMAKEDIR}"
  COMPONENT development)

# ---- Debian package ----

if(NOT PROJECT_IS_TOP_LEVEL)
  return()
endif()

# One package with both components: it is what a host machine installs to load the plug-in, and
# what a host project builds against.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ta-kvx)
set(CPACK_PACKAGE_VENDOR "ta_kvx developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
# CPack puts the summary first; this is the extended description below it.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
  "The plug-in libta_kvx.so with stand-ins for the host framework library and
the target agent client library beside it, the command-line host kvx-ta, the
simulated target agent kvx-agent-sim, and the headers and CMake package to
build a host against the plug-in.")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "ta_kvx developers <ta-kvx@example.invalid>")
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)

# /opt/ta_kvx rather than /usr: the three libraries must stay in one directory with bin/ beside
# it, and libtarget.agent.so and libvorn_host.so are unversioned stand-ins that carry the names
# of the closed libraries. In /usr/lib they would sit on the system's search path and could clash
# with the real ones; under /opt they are found only through the plug-in's and programs' RPATH.
set(CPACK_PACKAGING_INSTALL_PREFIX "/opt/ta_kvx")

# Depends is computed by dpkg-shlibdeps from the DT_NEEDED entries of the packaged binaries. The
# stand-ins belong to this package and to no installed one: dpkg-shlibdeps is pointed at their
# directory inside the package (it also follows the $ORIGIN RPATHs there), and as unversioned
# private libraries they add no dependency instead of failing the lookup.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  "${CPACK_PACKAGING_INSTALL_PREFIX}/${TA_KVX_INSTALL_LIBDIR}")
# Only for building against the CMake package, which finds Boost.Thread.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "libboost-thread-dev (>= 1.74)")

# The build keeps its debugging information; the package does not.
set(CPACK_STRIP_FILES ON)

# What a Debian package carries outside its prefix: the copyright file and changelog in
# /usr/share/doc/ta-kvx, the lintian override of the /opt layout, and a link that lets
# bash-completion, which looks in /usr/share and not beside programs, load the completion of
# /opt/ta_kvx/bin/kvx-ta. These are the `debian` component: absolute destinations, meaningful
# only below the staging directory (DESTDIR) that CPack's DEB generator installs into, and
# EXCLUDE_FROM_ALL, so that `cmake --install <build> --prefix P` installs nothing outside P.
# CPack installs the component by name, after everything else (CPACK_INSTALL_CMAKE_PROJECTS).
# The DEB generator stages with DESTDIR on its own. (Setting CPACK_SET_DESTDIR ON would not say
# the same: it installs into CMAKE_INSTALL_PREFIX rather than /opt/ta_kvx.)
set(debian_source "${PROJECT_SOURCE_DIR}/packaging/debian")
set(debian_build "${PROJECT_BINARY_DIR}/debian")
add_custom_command(
  OUTPUT "${debian_build}/changelog.gz"
  COMMAND "${CMAKE_COMMAND}" -E copy "${debian_source}/changelog" "${debian_build}/changelog"
  COMMAND gzip -9nf "${debian_build}/changelog"
  DEPENDS "${debian_source}/changelog"
  VERBATIM)
add_custom_target(ta_kvx_debian_changelog ALL DEPENDS "${debian_build}/changelog.gz")
file(MAKE_DIRECTORY "${debian_build}")
file(CREATE_LINK
  "${CPACK_PACKAGING_INSTALL_PREFIX}/${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions/kvx-ta"
  "${debian_build}/kvx-ta" SYMBOLIC)

install(CODE [[
  if("$ENV{DESTDIR}" STREQUAL "")
    message(FATAL_ERROR "the debian component installs into /usr/share: only for cpack -G DEB")
  endif()]]
  COMPONENT debian EXCLUDE_FROM_ALL)
install(FILES "${debian_source}/copyright" "${debian_build}/changelog.gz"
  DESTINATION /usr/share/doc/ta-kvx
  COMPONENT debian EXCLUDE_FROM_ALL)
install(FILES "${debian_source}/lintian-overrides"
  DESTINATION /usr/share/lintian/overrides
  RENAME ta-kvx
  COMPONENT debian EXCLUDE_FROM_ALL)
install(FILES "${debian_build}/kvx-ta"
  DESTINATION /usr/share/bash-completion/completions
  COMPONENT debian EXCLUDE_FROM_ALL)
set(CPACK_INSTALL_CMAKE_PROJECTS
  "${PROJECT_BINARY_DIR};${PROJECT_NAME};ALL;/"
  "${PROJECT_BINARY_DIR};${PROJECT_NAME};debian;/")

include(CPack)
