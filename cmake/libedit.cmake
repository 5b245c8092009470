# libedit has no CMake package. The target sched_libedit links it where it is installed (Debian: libedit-dev), and does
# not exist elsewhere.
find_path(LIBEDIT_INCLUDE_DIR editline/readline.h)
find_library(LIBEDIT_LIBRARY edit)
mark_as_advanced(LIBEDIT_INCLUDE_DIR LIBEDIT_LIBRARY)

if(LIBEDIT_INCLUDE_DIR AND LIBEDIT_LIBRARY)
  add_library(sched_libedit INTERFACE)
  target_include_directories(sched_libedit SYSTEM INTERFACE ${LIBEDIT_INCLUDE_DIR})
  target_link_libraries(sched_libedit INTERFACE ${LIBEDIT_LIBRARY})
endif()
