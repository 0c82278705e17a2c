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

if(KELPD_SANITIZE)
  set(sanitize -fsanitize=${KELPD_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_compile_options(${sanitize})
  add_link_options(${sanitize})
endif()
