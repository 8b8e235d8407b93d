# FFU_VERSION counts on with each commit until there is a tag, so that a newer package replaces an older
# one: 1.0.0~git512.9b762df. The library ffu_version tells it to the programs (version.h); only its one
# file is compiled again for a new commit.
execute_process(COMMAND git -C ${CMAKE_SOURCE_DIR} rev-list --count HEAD
    OUTPUT_VARIABLE count OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
execute_process(COMMAND git -C ${CMAKE_SOURCE_DIR} rev-parse --short HEAD
    OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
execute_process(COMMAND git -C ${CMAKE_SOURCE_DIR} rev-parse --path-format=absolute --git-path logs/HEAD
    OUTPUT_VARIABLE log OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
execute_process(COMMAND git -C ${CMAKE_SOURCE_DIR} tag --points-at HEAD --list v${PROJECT_VERSION}
    OUTPUT_VARIABLE tag ERROR_QUIET)
set(FFU_VERSION ${PROJECT_VERSION})
if(NOT tag)
    string(APPEND FFU_VERSION "~git${count}.${commit}") # without git: ~git.
endif()
if(EXISTS "${log}") # a new commit writes it
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${log})
endif()
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/generated/version.h
    CONTENT "// The version of the tools, as --version and the Debian package tell it.\nextern const char FFU_VERSION[];\n")
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/generated/version.cc
    CONTENT "#include \"version.h\"\nconst char FFU_VERSION[] = \"${FFU_VERSION}\";\n")
