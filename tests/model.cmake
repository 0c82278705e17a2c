# The daemon beside a model of it, a short run with a fixed seed; scripts/soak -m has the long one.
if(TARGET kelpd AND TARGET cvnsamp)
  add_test(NAME model.differential
    COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/model/run.py --seed 1 --requests 20000 --jobs 2)
  set_tests_properties(model.differential PROPERTIES TIMEOUT 900 PROCESSORS 2
    ENVIRONMENT "KELPD=$<TARGET_FILE:kelpd>;CVNSAMP=$<TARGET_FILE:cvnsamp>;${python_test_environment}")
endif()
