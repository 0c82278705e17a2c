# Raw bytes to a running daemon: one test per file, each file with daemons, ports and directories of its own.
# scripts/soak runs load and fault at full size, many times.
if(TARGET kelpd)
  foreach(area start request reply get put delete post scan sample_meta load fault)
    add_test(NAME wire.${area}
      COMMAND /usr/bin/env PYTHONDONTWRITEBYTECODE=1 KELPD=$<TARGET_FILE:kelpd> python3 -m unittest -v test_${area}
      WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/wire)
    set_tests_properties(wire.${area} PROPERTIES TIMEOUT 900)
  endforeach()
  set_tests_properties(wire.load PROPERTIES PROCESSORS 2)
endif()
