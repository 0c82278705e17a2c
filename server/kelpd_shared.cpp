// The process-wide record: apart from main, so that test programs link it.
#include "server/kelpd.h"

constinit global_t gl = {};
