# Mixed traffic with peers that stall and vanish, a short run; scripts/soak -l has the long one.
if(TARGET kelpd AND TARGET cvnsamp)
  add_test(NAME load.mixed COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/load/run.py --seconds 20)
  set_tests_properties(load.mixed PROPERTIES TIMEOUT 900 PROCESSORS 2
    ENVIRONMENT "KELPD=$<TARGET_FILE:kelpd>;CVNSAMP=$<TARGET_FILE:cvnsamp>;${python_test_environment}")
endif()
