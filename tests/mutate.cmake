# What scripts/mutate rests on. The faults themselves are planted by that script alone: each takes a build.
add_test(NAME mutate.faults_are_found_named_and_shut_in
  COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/mutate/test_mutate.py)
set_tests_properties(mutate.faults_are_found_named_and_shut_in PROPERTIES TIMEOUT 300)
