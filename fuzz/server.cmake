# The daemon's inputs: a request head, URLs, the configuration file, the JSON text of a query.
foreach(entry request_head url conf request_json)
  kelpd_fuzz(${entry} kelpd_core)
endforeach()
# And all of it together: no process is started from it.
kelpd_fuzz(request kelpd_core colvane)
add_dependencies(fuzz_request kelpd_revision)
target_sources(fuzz_request PRIVATE mutate.cpp ${PROJECT_SOURCE_DIR}/server/prefault.cpp)
target_link_libraries(fuzz_request PRIVATE PkgConfig::XXHASH)
target_include_directories(fuzz_request PRIVATE $<TARGET_PROPERTY:kelpd,BINARY_DIR>)
target_compile_definitions(fuzz_request PRIVATE FUZZ_GOLDEN_DIR="${PROJECT_SOURCE_DIR}/tests/golden")
target_link_options(fuzz_request PRIVATE
  LINKER:--wrap=popen LINKER:--wrap=pclose LINKER:--wrap=writev
  LINKER:--defsym=__wrap_system=__wrap_unexpected LINKER:--wrap=system
  LINKER:--defsym=__wrap_posix_spawn=__wrap_unexpected LINKER:--wrap=posix_spawn)
