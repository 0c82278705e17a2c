# The commands that talk to a server, from outside, against the daemon and against servers that misbehave.
if(TARGET cvn AND TARGET colvane_client AND TARGET kelpd AND TARGET cvnsamp)
  foreach(name catalog query errors terminal)
    add_test(NAME remote.${name}
      COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/tools/test_remote_${name}.py -v)
    set_tests_properties(remote.${name} PROPERTIES TIMEOUT 900 ENVIRONMENT
      "CVN=$<TARGET_FILE:cvn>;KELPD=$<TARGET_FILE:kelpd>;CVNSAMP=$<TARGET_FILE:cvnsamp>;${python_test_environment}")
  endforeach()
endif()
