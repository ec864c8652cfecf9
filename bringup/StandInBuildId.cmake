# Writes OUTPUT, a source file that defines kvx::bringup::kStandInBuildId as the GNU build-id of
# LIBRARY, read with READELF. Rewrites it only when the id changed.
execute_process(COMMAND "${READELF}" --notes "${LIBRARY}"
  OUTPUT_VARIABLE notes RESULT_VARIABLE status)
if(NOT status EQUAL 0 OR NOT notes MATCHES "Build ID: ([0-9a-f]+)")
  message(FATAL_ERROR "no GNU build-id in ${LIBRARY}")
endif()
set(content "// Generated from ${LIBRARY_NAME}; do not edit.\n#include \"bringup/StandInBuildId.h\"\n\nnamespace kvx::bringup {\n\nconst char* const kStandInBuildId = \"${CMAKE_MATCH_1}\";\n\n}  // namespace kvx::bringup\n")
if(EXISTS "${OUTPUT}")
  file(READ "${OUTPUT}" old)
endif()
if(NOT old STREQUAL content)
  file(WRITE "${OUTPUT}" "${content}")
endif()
