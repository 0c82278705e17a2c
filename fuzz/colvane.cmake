# The entries of the columnar library.
foreach(entry coldef datum lz4)
  kelpd_fuzz(${entry} colvane PkgConfig::LZ4)
endforeach()
foreach(entry scan scan_uncompress split rowgroups)
  kelpd_fuzz_file(${entry} colvane)
endforeach()
