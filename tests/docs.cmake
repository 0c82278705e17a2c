# Every command of every document, and the runner itself.
add_test(NAME docs.the_runner_notices_what_is_wrong
  COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/docs/test_run_docs.py)
set_tests_properties(docs.the_runner_notices_what_is_wrong PROPERTIES TIMEOUT 120)

if(TARGET kelpd AND TARGET cvn AND TARGET cvnsamp)
  foreach(document tutorial format wire operate)
    add_test(NAME docs.${document}_does_what_it_says
      COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/docs/run_docs.py
        ${PROJECT_SOURCE_DIR}/docs/${document}.md --program $<TARGET_FILE:kelpd> --program $<TARGET_FILE:cvn>
        --program $<TARGET_FILE:cvnsamp>)
    set_tests_properties(docs.${document}_does_what_it_says PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 300)
  endforeach()
endif()
