# Every command and program of every document, also where no file can grow, and the runner itself. Programs are built
# against the installed library.
set(docs_library --prefix ${CMAKE_CURRENT_BINARY_DIR}/prefix --cc ${CMAKE_C_COMPILER} --cxx ${CMAKE_CXX_COMPILER})
if(KELPD_SANITIZE)
  list(APPEND docs_library --sanitize ${KELPD_SANITIZE})
endif()
if(TARGET cvn)
  list(APPEND docs_library --program $<TARGET_FILE:cvn>)
endif()
list(JOIN docs_library " " docs_library_text)
add_test(NAME docs.the_runner_notices_what_is_wrong
  COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/docs/test_run_docs.py)
set_tests_properties(docs.the_runner_notices_what_is_wrong PROPERTIES TIMEOUT 600
  ENVIRONMENT "RUN_PROGRAMS=${docs_library_text}" FIXTURES_REQUIRED installed_colvane)

if(TARGET kelpd AND TARGET cvn AND TARGET cvnsamp)
  # The name in the tests, the document, and further options of the runner.
  function(kelpd_document name path)
    add_test(NAME docs.${name}_does_what_it_says
      COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/docs/run_docs.py ${PROJECT_SOURCE_DIR}/${path}
        --full-disk ${docs_library} --program $<TARGET_FILE:kelpd> --program $<TARGET_FILE:cvnsamp> ${ARGN})
    set_tests_properties(docs.${name}_does_what_it_says PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 600
      FIXTURES_REQUIRED installed_colvane)
  endfunction()
  kelpd_document(readme README.md)
  foreach(document tutorial format wire operate)
    kelpd_document(${document} docs/${document}.md)
  endforeach()
  set(orders "printf 'id,qty\\n1,10\\n2,60\\n' > orders.csv")
  set(answers "curl -sS -o /dev/null --retry 10 --retry-connrefused http://localhost:8642/v1")
  kelpd_document(cvn_1 packaging/man/cvn.1 --before
    "${orders} && mkdir data && echo port=8642 > data/kelpd.conf && kelpd -D data && ${answers}")
  kelpd_document(kelpd_8 packaging/man/kelpd.8 --before "${orders} && cvn create orders.cvn orders.csv")
  kelpd_document(colvane_3 packaging/man/colvane.3)
endif()

# What docs/security.md claims names the test that holds it.
add_test(NAME docs.security_names_tests_that_are_there
  COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/docs/test_security.py)
