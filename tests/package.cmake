# The sampler, and what is installed and packaged.

if(TARGET cvnsamp)
  kelpd_unit(cvnsamp_choose cvnsamp_core)
  kelpd_unit(cvnsamp_sample cvnsamp_core cvn_reader PkgConfig::XXHASH)
  add_test(NAME cvnsamp.command_line
    COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/package/test_cvnsamp.py
      --cvnsamp $<TARGET_FILE:cvnsamp> --golden ${CMAKE_CURRENT_SOURCE_DIR}/golden)
  set_tests_properties(cvnsamp.command_line PROPERTIES TIMEOUT 120)
  add_test(NAME cvnsamp.memory
    COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/package/test_cvnsamp_memory.py
      --cvnsamp $<TARGET_FILE:cvnsamp> "--sanitize=${KELPD_SANITIZE}")
  set_tests_properties(cvnsamp.memory PROPERTIES TIMEOUT 600 ENVIRONMENT "${python_test_environment}")
endif()

# A program of somebody else's that uses the installed client.
if(TARGET colvane_client AND TARGET kelpd)
  foreach(way find_package pkg_config)
    add_test(NAME install.a_client_program_builds_and_runs_through_${way}
      COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/install/build_client.py ${way}
        --prefix ${CMAKE_CURRENT_BINARY_DIR}/prefix --work ${CMAKE_CURRENT_BINARY_DIR}/client_${way}
        --cxx ${CMAKE_CXX_COMPILER} --kelpd $<TARGET_FILE:kelpd> "--sanitize=${KELPD_SANITIZE}")
    set_tests_properties(install.a_client_program_builds_and_runs_through_${way} PROPERTIES
      FIXTURES_REQUIRED installed_colvane SKIP_RETURN_CODE 77 TIMEOUT 900)
  endforeach()
endif()

# The manual pages and completions.
add_test(NAME package.manual_pages_and_completions_are_clean
  COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/package/test_files.py ${PROJECT_SOURCE_DIR}/packaging)
set_tests_properties(package.manual_pages_and_completions_are_clean PROPERTIES SKIP_RETURN_CODE 77)

# The units, and what removes temporary files.
add_test(NAME package.only_temporary_files_that_nobody_can_finish_are_removed
  COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/package/test_clean.py ${PROJECT_SOURCE_DIR}/packaging)

# The packages themselves take a build of their own, the network and root, so they are tested where that is wanted.
option(KELPD_TEST_PACKAGES "Build the Debian packages and install them in a clean root, as a test" OFF)
if(KELPD_TEST_PACKAGES)
  add_test(NAME package.build
    COMMAND ${PROJECT_SOURCE_DIR}/packaging/build_packages ${CMAKE_CURRENT_BINARY_DIR}/packages
      ${CMAKE_CURRENT_BINARY_DIR}/package-build)
  set_tests_properties(package.build PROPERTIES FIXTURES_SETUP built_packages TIMEOUT 1200)
  add_test(NAME package.packages_install_serve_and_go_away_in_a_clean_root
    COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/package/test_packages.py
      --packages ${CMAKE_CURRENT_BINARY_DIR}/packages --docs ${PROJECT_SOURCE_DIR}/docs)
  set_tests_properties(package.packages_install_serve_and_go_away_in_a_clean_root PROPERTIES
    FIXTURES_REQUIRED built_packages SKIP_RETURN_CODE 77 TIMEOUT 1200)
endif()
