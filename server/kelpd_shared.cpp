// The process-wide record: apart from main, so that test programs link it.
#include "server/kelpd.h"

global_t gl;
