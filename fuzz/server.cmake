# The daemon's inputs: a request head, URLs, the configuration file, the JSON text of a query.
foreach(name request_head url conf request_json)
  kelpd_fuzz(${name} kelpd_core)
endforeach()
