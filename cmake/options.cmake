# The target sched_options: warnings, hardening, and paths that do not depend on the build machine.
add_library(sched_options INTERFACE)

target_compile_options(sched_options INTERFACE
  -Wall -Wextra
  -Wshadow -Wconversion -Wformat=2 -Wcast-qual -Wcast-align -Wundef -Wvla
  -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=
  -ffile-prefix-map=${CMAKE_BINARY_DIR}=build)
if(SCHED_WERROR)
  target_compile_options(sched_options INTERFACE -Werror)
endif()

if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # The annotations in src/ name the lock of each table and routine; only clang can check them. Its -Wconversion
  # minds signs too; g++ has that apart, and one set of rules is enough.
  target_compile_options(sched_options INTERFACE -Wthread-safety -Wmissing-prototypes -Wno-sign-conversion)
else()
  target_compile_options(sched_options INTERFACE
    -Wlogical-op -Wduplicated-cond -Wduplicated-branches -Wmissing-declarations)
endif()

# A sanitizer has to see every object that is linked, so it is set for the whole tree and not through the target.
# Fortified calls would hide from it the accesses that it is there to see; with a sanitizer they stay out.
if(SCHED_SANITIZE)
  add_compile_options(-fsanitize=${SCHED_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${SCHED_SANITIZE})
  if(SCHED_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
else()
  set(optimised $<NOT:$<CONFIG:Debug>>)
  target_compile_options(sched_options INTERFACE
    -fPIE -fstack-protector-strong
    $<${optimised}:-U_FORTIFY_SOURCE> $<${optimised}:-D_FORTIFY_SOURCE=2>)
  # No -fstack-clash-protection: it touches every page of the connection threads' large buffers, which costs 32
  # connections some 3 MB of memory; every buffer is of fixed size and filled by code that knows that size.
  target_link_options(sched_options INTERFACE
    $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-pie>
    LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
endif()
