# Warnings, sanitizers and the two dialects of the tree. `kelpd_strict` is what every own target links;
# `kelpd_core_flags` adds what the daemon and the library leave out of C++.
add_library(kelpd_strict INTERFACE)
target_compile_options(kelpd_strict INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-Wall -Wextra -Wshadow -Wformat=2 -Wmissing-declarations -Wno-missing-field-initializers>)
if(KELPD_WERROR)
  target_compile_options(kelpd_strict INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Werror>)
endif()
target_include_directories(kelpd_strict INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)

add_library(kelpd_core_flags INTERFACE)
target_link_libraries(kelpd_core_flags INTERFACE kelpd_strict)
# No exceptions, no run-time types, no guarded statics: a C program links the library without a C++ runtime. A section
# for each function, so that a program can leave out those it does not call.
target_compile_options(kelpd_core_flags INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics -ffunction-sections -fdata-sections>)

# Hardening, in every program and in all builds but those with sanitizers, which bring their own and do not go with
# _FORTIFY_SOURCE: addresses that differ from start to start, a guard on every stack frame with an array, calls and
# jumps that land only where they may, no table of addresses that stays writable. tests/hardening.py reads the programs.
include(CheckPIESupported)
check_pie_supported(LANGUAGES C CXX)
include(CheckCCompilerFlag)
if(NOT KELPD_SANITIZE)
  add_compile_options(-fstack-protector-strong)
  foreach(flag stack-clash-protection cf-protection)
    check_c_compiler_flag(-f${flag} KELPD_HAS_${flag})
    if(KELPD_HAS_${flag})
      add_compile_options(-f${flag})
    endif()
  endforeach()
  # Undefined first, since a compiler may define another level by itself. It takes an optimising build.
  add_compile_options($<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
  add_link_options(-Wl,-z,relro -Wl,-z,now)
endif()

if(KELPD_SANITIZE)
  set(sanitize -fsanitize=${KELPD_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_compile_options(${sanitize})
  add_link_options(${sanitize})
endif()

# Lines counted by clang. The counters lie in the files themselves, so that a child that ends with _exit, or a daemon
# that is stopped by a signal, has counted as well.
option(KELPD_COVERAGE "Count the lines that the tests reach (clang)" OFF)
if(KELPD_COVERAGE)
  add_compile_options(-fprofile-instr-generate -fcoverage-mapping "SHELL:-mllvm -runtime-counter-relocation")
  add_link_options(-fprofile-instr-generate)
endif()
