# The tests of the client library.
if(TARGET colvane_client)
  set(client_test_libs colvane_client cvn_reader PkgConfig::LZ4 PkgConfig::XXHASH CURL::libcurl ${CMAKE_DL_LIBS})
  set(client_units rows_decode client_filter client_text client_stream client_scan client_scan_damage client_time
    client_memory client_catalogue client_upload client_tls client_columns client_arrow)
  foreach(name ${client_units})
    kelpd_unit(${name} ${client_test_libs} colvane_rows)
  endforeach()

  # Arrow streams in a real consumer: a database's shared library, as an npm package carries it.
  set(KELPD_DUCKDB_LIB "" CACHE FILEPATH "libduckdb.so for the Arrow tests (fetched with npm when empty)")
  add_executable(unit_client_duckdb unit/client_duckdb_test.cpp)
  target_link_libraries(unit_client_duckdb PRIVATE kelpd_strict ${client_test_libs} ${CMAKE_DL_LIBS}
    GTest::gtest GTest::gtest_main)
  set(duckdb_lib ${KELPD_DUCKDB_LIB})
  if(NOT duckdb_lib)
    set(duckdb_dir ${CMAKE_CURRENT_BINARY_DIR}/duckdb)
    set(duckdb_lib ${duckdb_dir}/node_modules/@duckdb/node-bindings-linux-x64/libduckdb.so)
    add_test(NAME client_duckdb.the_library_is_fetched
      COMMAND Python3::Interpreter ${support_dir}/fetch_duckdb.py ${duckdb_dir} ${duckdb_lib})
    set_tests_properties(client_duckdb.the_library_is_fetched PROPERTIES
      FIXTURES_SETUP duckdb SKIP_RETURN_CODE 77 TIMEOUT 300)
  endif()
  add_test(NAME client_duckdb.reads_every_type COMMAND unit_client_duckdb)
  # Its allocations at exit are its own; what the streams allocate is released before.
  set_tests_properties(client_duckdb.reads_every_type PROPERTIES FIXTURES_REQUIRED duckdb TIMEOUT 600
    SKIP_REGULAR_EXPRESSION "SKIPPED"
    ENVIRONMENT "DUCKDB_LIB=${duckdb_lib};ASAN_OPTIONS=detect_leaks=0")

  # Against the daemon itself.
  if(TARGET kelpd)
    add_executable(unit_client_kelpd unit/client_kelpd_test.cpp)
    target_link_libraries(unit_client_kelpd PRIVATE kelpd_strict ${client_test_libs} GTest::gtest GTest::gtest_main)
    add_test(NAME client_kelpd.works_with_the_daemon COMMAND unit_client_kelpd)
    set_tests_properties(client_kelpd.works_with_the_daemon PROPERTIES TIMEOUT 600
      ENVIRONMENT "KELPD=$<TARGET_FILE:kelpd>")
  endif()

  # GCC 12 takes a text literal added to a string for an overlapping copy (its bug 105651).
  foreach(name ${client_units} client_duckdb client_kelpd)
    if(TARGET unit_${name})
      target_compile_options(unit_${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
    endif()
  endforeach()
endif()
