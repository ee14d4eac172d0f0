# cmake -DCHECKED=FILE -P CheckRooms.cmake: every include of a room's sources is one that the table of
# docs/ARCHITECTURE.md allows, and carries its room. Makes FILE then, and FILE.d, which names the sources as make does.
# Run in the project's directory.
cmake_policy(VERSION 3.25)

include("${CMAKE_CURRENT_LIST_DIR}/RoomTable.cmake")

set(wrong)
set(sources)
foreach(room IN LISTS rooms)
  file(GLOB_RECURSE found RELATIVE "${CMAKE_CURRENT_SOURCE_DIR}" "${room}/*.h" "${room}/*.cpp")
  list(APPEND sources ${found})
  list(FILTER sources EXCLUDE REGEX "^tests/mutation/sample/") # a project of its own
endforeach()
foreach(source IN LISTS sources)
  string(REGEX MATCH "^[^/]*" room "${source}")
  file(STRINGS "${source}" includes REGEX "^#include \"")
  foreach(include IN LISTS includes)
    string(REGEX REPLACE "^#include \"([^\"]*)\".*" "\\1" include "${include}")
    string(REGEX MATCH "^[^/]*" used "${include}")
    if(include MATCHES "\\.cpp$")
      string(APPEND wrong "${source}: found #include \"${include}\", expected a header\n")
    elseif(NOT used IN_LIST rooms)
      string(APPEND wrong "${source}: found #include \"${include}\", expected a path that begins with a room\n")
    elseif(NOT used STREQUAL room AND NOT may_${room} STREQUAL "*" AND NOT used IN_LIST may_${room})
      string(APPEND wrong "${source}: found #include \"${include}\", but docs/ARCHITECTURE.md does not let "
        "${room}/ use ${used}/\n")
    endif()
  endforeach()
endforeach()
if(wrong)
  message(FATAL_ERROR "${wrong}")
endif()
list(TRANSFORM sources PREPEND "${CMAKE_CURRENT_SOURCE_DIR}/")
list(JOIN sources " \\\n  " sources)
file(WRITE "${CHECKED}.d" "${CHECKED}: ${sources}\n")
file(TOUCH "${CHECKED}")
