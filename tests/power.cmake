# Calls of the daemon and the tools seen from outside: what the power may cost, and a fault at every call. The tracer is
# for Linux on x86-64.
if(TARGET kelpd AND TARGET cvn AND TARGET cvnsamp AND CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
  find_package(Threads REQUIRED)
  add_library(call_tracer STATIC fault/tracer.cpp fault/scene.cpp)
  target_include_directories(call_tracer PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(call_tracer PUBLIC kelpd_strict Threads::Threads)

  # scripts/soak runs the sequences of three operations.
  add_executable(power power/power.cpp power/disk.cpp)
  target_link_libraries(power PRIVATE call_tracer colvane::colvane)
  set(power_command power --kelpd $<TARGET_FILE:kelpd> --cvn $<TARGET_FILE:cvn>)
  # Under sanitizers, which see a daemon go wrong that starts on such a tree, fewer do.
  if(KELPD_SANITIZE)
    set(power_extent --operations 1 --start 50)
  else()
    set(power_extent --operations 2 --share 3 --start 50)
  endif()
  add_test(NAME power.what_was_acknowledged_is_found_again_whole COMMAND ${power_command} ${power_extent})
  # The proof of the proof: where flushes do nothing there are losses, and they are seen.
  if(NOT KELPD_SANITIZE)
    add_test(NAME power.a_directory_that_is_not_flushed_is_a_loss_that_is_seen
      COMMAND ${power_command} --operations 1 --start 5 --no-directories)
    add_test(NAME power.a_file_that_is_not_flushed_is_a_loss_that_is_seen
      COMMAND ${power_command} --operations 1 --start 5 --no-files)
    set_tests_properties(power.a_directory_that_is_not_flushed_is_a_loss_that_is_seen
      power.a_file_that_is_not_flushed_is_a_loss_that_is_seen PROPERTIES TIMEOUT 900)
  endif()
  set_tests_properties(power.what_was_acknowledged_is_found_again_whole PROPERTIES TIMEOUT 900)

  # The shim that lets allocations fail is loaded into programs: the daemon is linked dynamically for it. The sanitizers
  # have allocators of their own.
  if(NOT KELPD_SANITIZE)
    add_library(alloc_shim MODULE fault/alloc_shim.cpp)
    target_include_directories(alloc_shim PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(alloc_shim PRIVATE kelpd_strict ${CMAKE_DL_LIBS})
    target_compile_options(alloc_shim PRIVATE -fno-builtin -Wno-missing-declarations)
    add_executable(kelpd_dynamic ${PROJECT_SOURCE_DIR}/server/kelpd.cpp ${PROJECT_SOURCE_DIR}/server/prefault.cpp)
    add_dependencies(kelpd_dynamic kelpd_revision)
    target_include_directories(kelpd_dynamic PRIVATE ${PROJECT_BINARY_DIR}/server)
    target_link_libraries(kelpd_dynamic PRIVATE kelpd_core_flags kelpd_core)
    add_executable(faults fault/faults.cpp)
    target_link_libraries(faults PRIVATE call_tracer)
    set(python_options "")
    if(python_numpy)
      set(python_options --python ${python_numpy} --package ${python_dir})
    endif()
    add_test(NAME fault.every_call_may_fail_and_what_is_promised_holds
      COMMAND faults --kelpd $<TARGET_FILE:kelpd_dynamic> --cvn $<TARGET_FILE:cvn> --cvnsamp $<TARGET_FILE:cvnsamp>
        --shim $<TARGET_FILE:alloc_shim> --golden ${CMAKE_CURRENT_SOURCE_DIR}/golden ${python_options}
        --stride 5 --tool-stride 97)
    set_tests_properties(fault.every_call_may_fail_and_what_is_promised_holds PROPERTIES TIMEOUT 900)
  endif()
endif()
