# Man pages for the programs, generated at build time by help2man from their --help and --version
# output, so a page never drifts from what the program itself says. The pages land in
# <build>/share/man/man1, the layout they are installed with.

find_program(TA_KVX_HELP2MAN help2man)
if(NOT TA_KVX_HELP2MAN)
  message(FATAL_ERROR "help2man is needed for the man pages: run scripts/setup.sh")
endif()

# ta_kvx_add_man_page(<target> <include file>)
#
# Generates section 1 page <OUTPUT_NAME>.1 for the program <target>, in the default build. The
# include file adds what --help does not say: the one-line NAME, and sections such as
# ENVIRONMENT and SEE ALSO (see help2man(1) for its format).
function(ta_kvx_add_man_page target include_file)
  get_target_property(name ${target} OUTPUT_NAME)
  set(dir "${PROJECT_BINARY_DIR}/share/man/man1")
  add_custom_command(
    OUTPUT "${dir}/${name}.1"
    COMMAND "${CMAKE_COMMAND}" -E make_directory "${dir}"
    COMMAND "${TA_KVX_HELP2MAN}" --no-info --section=1 "--include=${include_file}"
            "--output=${dir}/${name}.1" "$<TARGET_FILE:${target}>"
    DEPENDS ${target} "${include_file}"
    COMMENT "Generating the man page ${name}(1)"
    VERBATIM)
  add_custom_target(${target}_man ALL DEPENDS "${dir}/${name}.1")
endfunction()
