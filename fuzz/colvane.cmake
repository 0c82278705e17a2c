# The entries of the columnar library.
foreach(entry scan scan_uncompress split coldef datum lz4)
  kelpd_fuzz(${entry} colvane PkgConfig::LZ4)
endforeach()
