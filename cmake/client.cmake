# The operator's tools in client/ need three libraries that the daemon does not: they are built where those are
# installed (Debian: libcli11-dev, nlohmann-json3-dev, libedit-dev) and left out elsewhere.
if(NOT EXISTS ${CMAKE_SOURCE_DIR}/client/CMakeLists.txt)
  return()
endif()

find_package(CLI11 QUIET)
find_package(nlohmann_json QUIET)
find_path(LIBEDIT_INCLUDE_DIR histedit.h)
find_library(LIBEDIT_LIBRARY edit)
mark_as_advanced(LIBEDIT_INCLUDE_DIR LIBEDIT_LIBRARY)

if(CLI11_FOUND AND nlohmann_json_FOUND AND LIBEDIT_INCLUDE_DIR AND LIBEDIT_LIBRARY)
  add_library(sched_libedit INTERFACE)
  target_include_directories(sched_libedit SYSTEM INTERFACE ${LIBEDIT_INCLUDE_DIR})
  target_link_libraries(sched_libedit INTERFACE ${LIBEDIT_LIBRARY})
  add_subdirectory(client)
else()
  message(STATUS "client/ is left out: it needs libcli11-dev, nlohmann-json3-dev and libedit-dev")
endif()
