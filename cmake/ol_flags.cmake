# Compiler flags shared by the library, the tests and the tools.
#
# -ffp-contract=off: the arithmetic is specified operation by operation
# (fused multiply-adds only where the code calls fma/fmaf), and aarch64 GCC
# would otherwise fuse on its own.
set(OL_WARN_FLAGS -Wall -Wextra -Werror)
set(OL_FP_FLAGS -ffp-contract=off -fno-math-errno)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
  # Baseline of the x86-64 builds: SSE4.2 (unsigned 16-bit max, 32-bit
  # multiplies in vectors). Override with -DOL_X86_ARCH=... if needed.
  set(OL_X86_ARCH "x86-64-v2" CACHE STRING "x86-64 -march level")
  set(OL_ARCH_FLAGS -march=${OL_X86_ARCH})
else()
  set(OL_ARCH_FLAGS "")
endif()

function(ol_target_flags target)
  target_compile_options(${target} PRIVATE ${OL_WARN_FLAGS} ${OL_FP_FLAGS} ${OL_ARCH_FLAGS})
  ol_sanitize(${target})
  # ASan and TSan builds compile everything but the library at -O1 with line
  # tables only: enough for symbolised reports, in half the compile time. The
  # library keeps the build type's optimisation.
  if(OL_SANITIZE MATCHES "^(address|thread)$" AND NOT target STREQUAL "ol_objects")
    target_compile_options(${target} PRIVATE -O1 -g1)
  endif()
endfunction()

# Objects of `target` are rebuilt when the coverage ignorelist changes (the
# compiler reads it, but the build does not track it otherwise).
function(ol_depend_on_ignorelist target)
  get_target_property(srcs ${target} SOURCES)
  get_target_property(dir ${target} SOURCE_DIR)
  foreach(src ${srcs})
    if(src MATCHES "\\.(c|cc|cpp)$")
      set_property(SOURCE ${src} DIRECTORY ${dir} APPEND PROPERTY OBJECT_DEPENDS
        ${PROJECT_SOURCE_DIR}/fuzz/coverage_ignore.txt)
    endif()
  endforeach()
endfunction()

function(ol_sanitize target)
  if(OL_SANITIZE STREQUAL "address")
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined
      -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined)
  elseif(OL_SANITIZE STREQUAL "fuzzer")
    # libFuzzer builds (clang): coverage instrumentation without libFuzzer's
    # main, plus ASan and UBSan; fuzz targets add -fsanitize=fuzzer.
    # clang links shared objects without the sanitizer runtime, which the
    # program brings: the shared library may keep those references open.
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link,address,undefined
      -fsanitize-coverage-ignorelist=${PROJECT_SOURCE_DIR}/fuzz/coverage_ignore.txt
      -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined -Wl,-z,undefs)
    ol_depend_on_ignorelist(${target})
  elseif(OL_SANITIZE STREQUAL "thread")
    target_compile_options(${target} PRIVATE -fsanitize=thread -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=thread)
  endif()
endfunction()
