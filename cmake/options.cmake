# The target sched_options: warnings, hardening, and paths that do not depend on the build machine.
add_library(sched_options INTERFACE)

# Where a pointer has 32 bits, time_t and off_t have 32 bits too unless these are set: the clock would end in 2038, and a
# file of more than 2 GiB could not be opened. Set for the whole tree, because structures that contain a time must agree.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_TIME_BITS=64 _FILE_OFFSET_BITS=64)
endif()

target_compile_options(sched_options INTERFACE
  -Wall -Wextra
  -Wshadow -Wconversion -Wformat=2 -Wcast-qual -Wcast-align -Wundef -Wvla
  -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=
  -ffile-prefix-map=${CMAKE_BINARY_DIR}=build)
if(SCHED_WERROR)
  target_compile_options(sched_options INTERFACE -Werror)
endif()

if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # The -Wconversion of clang also warns about signs. g++ has a separate option for that, which we do not use; so it is
  # off here too.
  target_compile_options(sched_options INTERFACE -Wmissing-prototypes -Wno-sign-conversion)
else()
  target_compile_options(sched_options INTERFACE
    -Wlogical-op -Wduplicated-cond -Wduplicated-branches -Wmissing-declarations)
  # With -O3, g++ 12 takes "text" + std::string for a copy of overlapping bytes inside its own library.
  if(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(sched_options INTERFACE -Wno-restrict)
  endif()
endif()

# A sanitizer must instrument every object that is linked, so it is set for the whole tree and not in the target.
# Fortified calls would hide memory accesses from it, so they are off with a sanitizer.
if(SCHED_SANITIZE)
  add_compile_options(-fsanitize=${SCHED_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${SCHED_SANITIZE})
  if(SCHED_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-fsanitize-ignorelist=${CMAKE_SOURCE_DIR}/cmake/not_sanitized.txt>)
  endif()
else()
  set(optimised $<NOT:$<CONFIG:Debug>>)
  target_compile_options(sched_options INTERFACE
    -fPIE -fstack-protector-strong
    $<${optimised}:-U_FORTIFY_SOURCE> $<${optimised}:-D_FORTIFY_SOURCE=2>)
  # No -fstack-clash-protection: it touches every page of the large buffers of the connection threads, about 3 MB for 32
  # connections. It is not needed: every buffer has a fixed size and is filled by code that knows the size.
  target_link_options(sched_options INTERFACE
    $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-pie>
    LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
endif()
