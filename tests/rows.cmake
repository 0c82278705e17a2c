# What the client library, the tool and the sampler share.
if(TARGET colvane_rows)
  foreach(name rows_value rows_cond rows_page rows_file rows_show)
    kelpd_unit(${name} colvane_rows cvn_reader PkgConfig::XXHASH PkgConfig::LZ4)
    # GCC 12 takes a text literal added to a string for an overlapping copy (its bug 105651).
    target_compile_options(unit_${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
  endforeach()
endif()
