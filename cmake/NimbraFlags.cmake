# Compiler settings. nimbra_flags is for everything that we write ourselves;
# nimbra_library_flags is for the library's own sources.

add_library(nimbra_flags INTERFACE)
target_compile_features(nimbra_flags INTERFACE cxx_std_20)
target_compile_options(nimbra_flags INTERFACE
  -Wall -Wextra -Wpedantic -Werror
  -Wformat=2 -Wno-format-nonliteral
  -Wcast-qual -Wnon-virtual-dtor -Woverloaded-virtual -Wundef
  -fno-omit-frame-pointer
  # Records are read and written through pointers that came out of Java longs and byte buffers.
  -fno-strict-aliasing)
target_compile_definitions(nimbra_flags INTERFACE
  _GNU_SOURCE
  NIMBRA_CHECKS=$<BOOL:${NIMBRA_CHECKS}>)

if(NIMBRA_SANITIZE)
  set(_sanitize -fsanitize=${NIMBRA_SANITIZE} -fno-sanitize-recover=all)
  target_compile_options(nimbra_flags INTERFACE ${_sanitize} -g -O1)
  target_link_options(nimbra_flags INTERFACE ${_sanitize})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Instrumented code makes GCC 12 see uninitialised reads inside the standard library.
    target_compile_options(nimbra_flags INTERFACE -Wno-maybe-uninitialized)
  endif()
  if(NIMBRA_SANITIZE MATCHES "undefined")
    # The virtual-table check needs the type information that the library is built without.
    target_compile_options(nimbra_flags INTERFACE -fno-sanitize=vptr)
  endif()
  if(NIMBRA_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC warns at every atomic_thread_fence; the ones we have stand beside atomics that the
    # sanitizer does follow.
    target_compile_options(nimbra_flags INTERFACE -Wno-tsan)
  endif()
endif()

add_library(nimbra_library_flags INTERFACE)
target_link_libraries(nimbra_library_flags INTERFACE nimbra_flags)
target_compile_options(nimbra_library_flags INTERFACE
  -fno-exceptions -fno-rtti
  $<$<CONFIG:Release>:-fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3>)
