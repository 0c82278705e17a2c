#include "bench/guard.h"

#include <stdlib.h>

const char* guard_refusal() {
    const char* any = getenv("KELPD_BENCH_ANY_BUILD");
    if (any && *any) return nullptr;
#if defined(BENCH_SANITIZED) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return "built with sanitizers";
#elif !defined(__OPTIMIZE__)
    return "built without optimisation";
#elif !defined(NDEBUG)
    return "built with debugging checks";
#else
    return nullptr;
#endif
}
