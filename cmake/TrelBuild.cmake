# How everything here is built: language level, warnings, sanitizers, where programs and libraries go, and how
# rooms and tests are declared.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")
# Programs find the libraries in ../lib, wherever both are put.
include(GNUInstallDirs)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
set(CMAKE_INSTALL_RPATH "\$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

find_program(TREL_CCACHE ccache)
if(TREL_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${TREL_CCACHE}")
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # g++ 12 sees overlapping copies in the assignment of a literal to a std::string when it optimises (GCC bug 105329).
  add_compile_options($<$<NOT:$<CONFIG:Debug>>:-Wno-restrict>)
  # In a file that is compiled together with others it takes what that file has for itself for a header's.
  if(CMAKE_UNITY_BUILD)
    add_compile_options(-Wno-subobject-linkage)
  endif()
else()
  add_compile_options(-Wno-sign-conversion) # g++ has it not among those of -Wconversion
endif()
# Assertion messages and traces name files; they name them as the project does, wherever it was built.
add_compile_options("-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")

# What makes a flaw harder to use; tests/programs/HardeningTest.cpp looks for the effect of each.
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)
add_compile_options(-fstack-protector-strong -fstack-clash-protection)
add_compile_definitions(_GLIBCXX_ASSERTIONS)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
  add_compile_options(-fcf-protection)
endif()
add_link_options(-Wl,-z,relro,-z,now -Wl,--as-needed)

set(TREL_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize= takes them")
if(TREL_SANITIZE)
  add_compile_options("-fsanitize=${TREL_SANITIZE}" -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options("-fsanitize=${TREL_SANITIZE}")
  add_compile_definitions(TREL_SANITIZED) # for tests that take long, or limit memory
endif()

option(TREL_COVERAGE "Count which branches are taken (tests/coverage/run)" OFF)
if(TREL_COVERAGE)
  # Atomic: some tests have threads.
  add_compile_options(--coverage -O0 -fprofile-update=atomic)
  add_link_options(--coverage)
endif()

# Takes optimisation, and replaces what sanitizers watch.
if(NOT TREL_SANITIZE AND NOT TREL_COVERAGE)
  add_compile_options("$<$<NOT:$<CONFIG:Debug>>:SHELL:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3>")
endif()

# A process of the target that ends by abort() or _exit() leaves its counts, too, in a coverage build.
function(trel_leaves_counts target)
  if(TREL_COVERAGE)
    target_sources(${target} PRIVATE "${PROJECT_SOURCE_DIR}/tests/coverage/DumpAtExit.cpp")
    target_link_options(${target} PRIVATE -Wl,--wrap=_exit)
  endif()
endfunction()

# Every file is included by its path from the project's directory: "kelstore/Path.h". Which rooms a room may
# include is the table in docs/ARCHITECTURE.md; the build holds every include against it.
set(TREL_GENERATED "${PROJECT_BINARY_DIR}/generated")
include_directories("${PROJECT_SOURCE_DIR}")
include_directories(SYSTEM "${TREL_GENERATED}")
set(TREL_CHECKED "${PROJECT_BINARY_DIR}/CMakeFiles/rooms.checked")
add_custom_command(
  OUTPUT "${TREL_CHECKED}"
  COMMAND "${CMAKE_COMMAND}" "-DCHECKED=${TREL_CHECKED}" -P "${PROJECT_SOURCE_DIR}/cmake/CheckRooms.cmake"
  WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
  DEPENDS cmake/CheckRooms.cmake cmake/RoomTable.cmake docs/ARCHITECTURE.md
  DEPFILE "${TREL_CHECKED}.d"
  COMMENT "Holding includes against the rooms of docs/ARCHITECTURE.md"
  VERBATIM)
add_custom_target(rooms ALL DEPENDS "${TREL_CHECKED}")

# Lists the targets below the directory, with the rooms in which they are, in targets.txt of the build directory.
function(trel_list_targets directory)
  get_property(targets DIRECTORY "${directory}" PROPERTY BUILDSYSTEM_TARGETS)
  file(RELATIVE_PATH room "${PROJECT_SOURCE_DIR}" "${directory}")
  string(REGEX REPLACE "/.*" "" room "${room}")
  foreach(target IN LISTS targets)
    file(APPEND "${PROJECT_BINARY_DIR}/targets.txt" "${target} ${room}\n")
  endforeach()
  get_property(directories DIRECTORY "${directory}" PROPERTY SUBDIRECTORIES)
  foreach(below IN LISTS directories)
    trel_list_targets("${below}")
  endforeach()
endfunction()

# Most presets compile several files of a target as one, which takes half the time or less. Files that are given as
# ALONE below are not compiled so, as they use names that others of the target have, too.
function(trel_alone)
  set_source_files_properties(${ARGN} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()

# Parses headers once for all targets of a kind, which are compiled with the same options: so all use -pthread and fmt, as
# some of them need it. Not with ccache, which keeps nothing of a compilation that does so; and not with optimisation, as g++ 12
# then warns of what is not there. Release builds therefore see that each file of a room includes what it needs.
function(trel_parse_once target kind)
  target_compile_options(${target} PRIVATE -pthread)
  target_link_libraries(${target} PRIVATE fmt::fmt)
  target_precompile_headers(${target} REUSE_FROM ${kind})
endfunction()
file(CONFIGURE OUTPUT "${PROJECT_BINARY_DIR}/CMakeFiles/headers.cpp" CONTENT "int main() {}\n")
set(TREL_COMMON_HEADERS
  <fmt/format.h> <nlohmann/json.hpp> <algorithm> <chrono> <functional> <map> <memory> <optional> <string> <variant> <vector>)

# trel_room(NAME [TYPE STATIC|SHARED] SOURCES file... [ALONE file...] [USES target...] [PRIVATE_USES target...])
# A room is one library, or a few.
function(trel_room name)
  cmake_parse_arguments(ROOM "" "TYPE" "SOURCES;ALONE;USES;PRIVATE_USES" ${ARGN})
  if(NOT ROOM_TYPE)
    set(ROOM_TYPE STATIC)
  endif()
  add_library(${name} ${ROOM_TYPE} ${ROOM_SOURCES} ${ROOM_ALONE})
  trel_alone(${ROOM_ALONE})
  target_link_libraries(${name} PUBLIC ${ROOM_USES} PRIVATE ${ROOM_PRIVATE_USES})
  if(TREL_SANITIZE AND NOT TREL_CCACHE)
    if(NOT TARGET room-headers)
      add_library(room-headers STATIC "${PROJECT_BINARY_DIR}/CMakeFiles/headers.cpp")
      target_link_libraries(room-headers PRIVATE fmt::fmt nlohmann_json::nlohmann_json)
      target_compile_options(room-headers PRIVATE -pthread)
      target_precompile_headers(room-headers PRIVATE ${TREL_COMMON_HEADERS})
    endif()
    trel_parse_once(${name} room-headers)
  endif()
  if(TREL_COVERAGE)
    # Without the branches to where another thread makes a function's static variable.
    target_compile_options(${name} PRIVATE -fno-threadsafe-statics)
  endif()
endfunction()

# Builds every test program that is labelled unit.
add_custom_target(unit-tests)

# What runs at a start, for an operator, or once in seconds, takes a third less to compile so.
set(TREL_SELDOM $<$<CONFIG:Release>:-O1>)
function(trel_runs_seldom)
  foreach(target IN LISTS ARGN)
    target_compile_options(${target} PRIVATE ${TREL_SELDOM})
  endforeach()
endfunction()

# What a test itself does takes no time worth optimising for, while compiling it does. Nor are its own pointers worth
# the checks for null and alignment, a third of the time: address 0 is noticed all the same.
function(trel_compiles_quickly target)
  target_compile_options(${target} PRIVATE "SHELL:-O0 -U_FORTIFY_SOURCE")
  if(TREL_SANITIZE)
    target_compile_options(${target} PRIVATE -fno-sanitize=null,alignment)
  endif()
endfunction()

# trel_test_support(NAME SOURCES file... [USES target...])
# What several test programs have in common, compiled once.
function(trel_test_support name)
  cmake_parse_arguments(T "" "" "SOURCES;USES" ${ARGN})
  add_library(${name} STATIC ${T_SOURCES})
  target_link_libraries(${name} PUBLIC ${T_USES})
  trel_compiles_quickly(${name})
endfunction()

# trel_ctest(NAME PROGRAM LABEL TIMEOUT [FILTER])
# One ctest entry: the tests of a program, or those that a filter of GoogleTest's leaves. Tells ./test what it skipped.
function(trel_ctest name program label timeout)
  list(TRANSFORM ARGN PREPEND --gtest_filter=)
  add_test(NAME ${name} COMMAND ${program} --gtest_brief=1 ${ARGN})
  set_tests_properties(${name} PROPERTIES
    LABELS ${label} TIMEOUT ${timeout}
    ENVIRONMENT_MODIFICATION "GTEST_OUTPUT=set:xml:${PROJECT_BINARY_DIR}/results/${name}.xml")
endfunction()

# trel_test(NAME SOURCES file... [ALONE file...] [USES target...] [LABEL unit|e2e] [TIMEOUT seconds] [LONG] [EACH])
# One GoogleTest program and one ctest entry. LONG: it runs so long that its own code is worth optimising, but for
# sanitizers, with which tests do less and g++ takes longer. EACH: a ctest entry for each file, some-xy-test for XyTest.cpp
# of some-test, so that what waits most of its time waits side by side, while common headers are parsed once.
function(trel_test name)
  cmake_parse_arguments(T "LONG;EACH" "LABEL;TIMEOUT" "SOURCES;ALONE;USES" ${ARGN})
  if(NOT T_LABEL)
    set(T_LABEL unit)
  endif()
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  add_executable(${name} ${T_SOURCES} ${T_ALONE})
  trel_alone(${T_ALONE})
  target_link_libraries(${name} PRIVATE ${T_USES} GTest::gmock GTest::gtest_main)
  trel_leaves_counts(${name})
  if(T_EACH)
    foreach(file IN LISTS T_SOURCES T_ALONE)
      # A suite that is added is seen, as the file is read again whenever it changes.
      set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${file}")
      file(STRINGS "${file}" suites REGEX "^TEST(_F|_P)?\\(")
      list(TRANSFORM suites REPLACE "^TEST(_F|_P)?\\( *([A-Za-z0-9_]+).*" "\\2.*:*/\\2.*")
      list(REMOVE_DUPLICATES suites)
      list(JOIN suites : filter)
      string(REGEX REPLACE "-test$" "" stem ${name})
      string(TOLOWER "${file}" entry)
      string(REGEX REPLACE "^(${stem})?(.*)test.cpp$" "${stem}-\\2-test" entry "${entry}")
      string(REPLACE -- - entry "${entry}")
      trel_ctest(${entry} ${name} ${T_LABEL} ${T_TIMEOUT} "${filter}")
    endforeach()
  else()
    trel_ctest(${name} ${name} ${T_LABEL} ${T_TIMEOUT})
  endif()
  if(NOT T_LONG OR TREL_SANITIZE)
    trel_compiles_quickly(${name})
    if(NOT TREL_CCACHE)
      if(NOT TARGET test-headers)
        add_executable(test-headers "${PROJECT_BINARY_DIR}/CMakeFiles/headers.cpp")
        target_link_libraries(test-headers PRIVATE fmt::fmt nlohmann_json::nlohmann_json GTest::gmock)
        trel_compiles_quickly(test-headers)
        target_compile_options(test-headers PRIVATE -pthread)
        target_precompile_headers(test-headers PRIVATE <gmock/gmock.h> <gtest/gtest.h> ${TREL_COMMON_HEADERS})
      endif()
      trel_parse_once(${name} test-headers)
    endif()
  endif()
  if(T_LABEL STREQUAL unit)
    add_dependencies(unit-tests ${name})
  endif()
endfunction()
