# The tests of the columnar library.

# The second reader and writer: shares the format with the library, and no code.
add_library(cvn_reader STATIC reader/reader.cpp reader/writer.cpp reader/order.cpp)
target_include_directories(cvn_reader PUBLIC ${CMAKE_CURRENT_SOURCE_DIR} ${support_dir})
target_link_libraries(cvn_reader PRIVATE kelpd_strict PkgConfig::LZ4 PkgConfig::XXHASH)

foreach(name mpool dec cvn_type cvn_write cvn_scan cvn_prove cvn_lens cvn_split cvn_roundtrip)
  kelpd_unit(${name} colvane cvn_reader)
endforeach()

# The two that count or fail allocations: the wrappers stand between the library's own objects and the C library, so
# these programs take the objects as they are, whether the library is built static or shared.
set(wrapped malloc calloc realloc posix_memalign aligned_alloc strdup free fopen fclose fwrite pread open
  posix_fadvise)
list(TRANSFORM wrapped PREPEND "-Wl,--wrap=" OUTPUT_VARIABLE wrap_options)
foreach(name cvn_hostile cvn_fault)
  if(name STREQUAL "cvn_fault")
    set(source fault/fault_test.cpp)
  else()
    set(source unit/${name}_test.cpp)
  endif()
  add_executable(unit_${name} ${source} fault/wrap.cpp $<TARGET_OBJECTS:colvane> ${KELPD_DECNUMBER_OBJECTS})
  target_link_libraries(unit_${name} PRIVATE kelpd_strict cvn_reader PkgConfig::LZ4 PkgConfig::XXHASH
    ${KELPD_DECNUMBER_LIBS} GTest::gtest GTest::gtest_main)
  target_compile_definitions(unit_${name} PRIVATE TESTS_DIR="${CMAKE_CURRENT_SOURCE_DIR}")
  target_link_options(unit_${name} PRIVATE ${wrap_options})
  gtest_discover_tests(unit_${name} TEST_PREFIX ${name}. DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 600)
endforeach()

# Both dialects of the public headers: the same checks compiled as C11 and as C++17; and the headers included inside
# a block of C linkage.
kelpd_unit(headers colvane cvn_reader)
target_sources(unit_headers PRIVATE unit/headers_c11.c unit/headers_cxx17.cpp unit/headers_extern_c.cpp)
set_source_files_properties(unit/headers_c11.c PROPERTIES COMPILE_OPTIONS
  "-std=c11;-Wall;-Wextra;-pedantic;-Werror")
set_source_files_properties(unit/headers_cxx17.cpp unit/headers_extern_c.cpp PROPERTIES COMPILE_OPTIONS
  "-std=c++17;-Wall;-Wextra;-pedantic;-Werror")

# Golden files: their bytes come from the script, which must still make them.
add_test(NAME golden.the_script_makes_exactly_the_stored_files
  COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/golden/make_golden.py --check)

# The installed package, seen from outside: C11, C++17 and C++20 through find_package and through pkg-config.
add_test(NAME install.prepare
  COMMAND ${CMAKE_COMMAND} --install ${PROJECT_BINARY_DIR} --prefix ${CMAKE_CURRENT_BINARY_DIR}/prefix)
set_tests_properties(install.prepare PROPERTIES FIXTURES_SETUP installed_colvane)
foreach(way find_package pkg_config)
  add_test(NAME install.a_consumer_builds_and_runs_through_${way}
    COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/install/build_consumer.py ${way}
      --prefix ${CMAKE_CURRENT_BINARY_DIR}/prefix --work ${CMAKE_CURRENT_BINARY_DIR}/consumer_${way}
      --cc ${CMAKE_C_COMPILER} --cxx ${CMAKE_CXX_COMPILER} "--sanitize=${KELPD_SANITIZE}")
  set_tests_properties(install.a_consumer_builds_and_runs_through_${way} PROPERTIES
    FIXTURES_REQUIRED installed_colvane TIMEOUT 600)
endforeach()
