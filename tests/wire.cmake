# Raw bytes to a running daemon: one test per file, each file with daemons, ports and directories of its own.
# scripts/soak runs load and fault at full size, many times.
if(TARGET kelpd)
  foreach(area start request reply get put delete post scan sample_meta load fault)
    add_test(NAME wire.${area}
      COMMAND Python3::Interpreter -m unittest -v test_${area}
      WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/wire)
    set_tests_properties(wire.${area} PROPERTIES TIMEOUT 900
      ENVIRONMENT "KELPD=$<TARGET_FILE:kelpd>;${python_test_environment}")
  endforeach()
  set_tests_properties(wire.load PROPERTIES PROCESSORS 2)
endif()
