// Chooses among the instruction sets that kernels.cpp was compiled for.
#include <string.h>

#include "bench/kernels.h"

extern const kernels_t kernels_base;
#if defined(BENCH_KERNELS_X86)
extern const kernels_t kernels_avx2;
extern const kernels_t kernels_avx512;
#endif

const kernels_t* kernels_get(const char* name) {
    const auto wanted = [name](const kernels_t& k) { return !name || strcmp(name, k.name) == 0; };
#if defined(BENCH_KERNELS_X86)
    const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") &&
                      __builtin_cpu_supports("bmi2") && __builtin_cpu_supports("popcnt");
    if (avx2 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl") && wanted(kernels_avx512))
        return &kernels_avx512;
    if (avx2 && wanted(kernels_avx2)) return &kernels_avx2;
#endif
    return wanted(kernels_base) ? &kernels_base : nullptr;
}
