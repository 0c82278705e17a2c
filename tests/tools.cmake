# The command-line tool: its parts one by one, and the program from outside.
if(TARGET cvn)
  kelpd_unit(tool_csv cvn_tool)
  kelpd_unit(tool_schema cvn_tool)
  foreach(name create read verify)
    add_test(NAME tools.${name}
      COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/tools/test_${name}.py -v)
    set_tests_properties(tools.${name} PROPERTIES TIMEOUT 900
      ENVIRONMENT "CVN=$<TARGET_FILE:cvn>;${python_test_environment}")
  endforeach()
endif()
