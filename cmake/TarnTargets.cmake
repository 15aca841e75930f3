# Flags and helpers that every target of the tree uses.

add_library(tarn_flags INTERFACE)
target_compile_options(tarn_flags INTERFACE -Wall -Wextra -Werror)
target_include_directories(tarn_flags INTERFACE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/include
                                                ${CMAKE_SOURCE_DIR}/platform/include)
if(TARNVTE_SANITIZE)
  # float-cast-overflow is not part of "undefined", and sizes and bit rates are where it bites.
  add_compile_options(-fsanitize=address,undefined,float-cast-overflow -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  # With the sanitizers in, this compiler takes the standard library's own code for uninitialized.
  add_compile_options(-Wno-maybe-uninitialized)
  add_link_options(-fsanitize=address,undefined,float-cast-overflow)
endif()
if(TARNVTE_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
endif()

# tarn_library(NAME SOURCES a.cc ... LIBS x ...): one layer of the engine, a static library.
function(tarn_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC ${ARG_LIBS} PRIVATE tarn_flags)
endfunction()

# tarn_test(NAME SOURCES a.cc ... LIBS x ... LABELS unit|host|media|browser [PLATFORM linux|fake]
#           [TIMEOUT s] [ARGS ...]): one GoogleTest binary. Each of its cases is a CTest test of its
# own, in a process and a sandbox of its own (platform detection is read once per process).
# PLATFORM linux (the default) links the real platform library; fake puts the scripted one in front.
function(tarn_test name)
  cmake_parse_arguments(ARG "" "PLATFORM;TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  set(platform platform_linux)
  if(ARG_PLATFORM STREQUAL "fake")
    set(platform platform_fake platform_linux)
  endif()
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} platform_api GTest::gmock GTest::gtest_main
                                        tarn_flags)
  target_compile_definitions(${name} PRIVATE
    TARN_TEST_MEDIA="${CMAKE_BINARY_DIR}/tests/media"
    TARN_TEST_DATA="${CMAKE_SOURCE_DIR}/tests"
    TARN_TEST_BIN="${CMAKE_BINARY_DIR}")
  set_target_properties(${name} PROPERTIES
    TARN_PLATFORM "${platform}"
    RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/bin
    CROSSCOMPILING_EMULATOR ${CMAKE_BINARY_DIR}/sandbox)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST TEST_PREFIX "${name}."
                       PROPERTIES LABELS "${ARG_LABELS}" TIMEOUT ${ARG_TIMEOUT})
endfunction()

# tarn_npm_folder(NAME VARIABLE file ...): the folder of a Node.js program of the tests in the build
# tree, with the packages that its package-lock.json names. VARIABLE gets its path; the target NAME
# installs it.
function(tarn_npm_folder name variable)
  find_program(NPM npm REQUIRED)
  set(folder ${CMAKE_CURRENT_BINARY_DIR}/${name})
  foreach(file package.json package-lock.json ${ARGN})
    configure_file(${file} ${folder}/${file} COPYONLY)
  endforeach()
  add_custom_command(OUTPUT ${folder}/installed
    COMMAND ${NPM} ci --ignore-scripts --no-audit --no-fund
    COMMAND ${CMAKE_COMMAND} -E touch ${folder}/installed
    DEPENDS package.json package-lock.json
    WORKING_DIRECTORY ${folder}
    COMMENT "Installing the packages of ${name}"
    VERBATIM)
  add_custom_target(${name} DEPENDS ${folder}/installed)
  set(${variable} ${folder} PARENT_SCOPE)
endfunction()
