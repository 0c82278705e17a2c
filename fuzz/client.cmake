# The client's inputs: what a server sends, in chunks, pages, catalogues and whole replies, and what users type. The
# client is compiled once more for them, with coverage, and without its Arrow part, which takes nothing from outside.
if(TARGET colvane_client)
  get_target_property(client_sources colvane_client SOURCES)
  list(FILTER client_sources EXCLUDE REGEX "arrow.*\\.cpp$|TARGET_OBJECTS")
  list(TRANSFORM client_sources PREPEND ${PROJECT_SOURCE_DIR}/clients/cpp/)
  get_target_property(rows_sources colvane_rows_objects SOURCES)
  list(TRANSFORM rows_sources PREPEND ${PROJECT_SOURCE_DIR}/rows/)
  add_library(fuzz_client STATIC ${client_sources} ${rows_sources})
  target_link_libraries(fuzz_client PUBLIC kelpd_strict colvane CURL::libcurl Threads::Threads PkgConfig::LZ4
    PkgConfig::XXHASH)
  # GCC 12 takes a text literal added to a string for an overlapping copy (its bug 105651).
  target_compile_options(fuzz_client PUBLIC $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
  if(KELPD_LIBFUZZER AND KELPD_SANITIZE)
    target_compile_options(fuzz_client PRIVATE -fsanitize=fuzzer-no-link)
  endif()
  foreach(entry client_chunk client_page client_reply client_http client_text)
    kelpd_fuzz(${entry} fuzz_client)
  endforeach()
  target_link_options(fuzz_client_reply PRIVATE LINKER:--wrap=_ZN4kelp8http_runEPNS_6http_tEP12kelp_error_t)
endif()
