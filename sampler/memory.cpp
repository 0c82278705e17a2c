#include "sampler/memory.h"

#include <malloc.h>
#include <stdio.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

static constexpr int LARGE_BLOCK = 1 << 20;

// What the process has now, in bytes; zeros where the system does not tell, which only makes the limit tighter.
static void memory_taken(int64_t* ret_space, int64_t* ret_resident) {
    *ret_space = *ret_resident = 0;
    FILE* const fp = fopen("/proc/self/statm", "re");
    if (!fp) return;
    long space = 0, resident = 0;
    if (fscanf(fp, "%ld %ld", &space, &resident) == 2) {
        const int64_t page = sysconf(_SC_PAGESIZE);
        *ret_space = space * page;
        *ret_resident = resident * page;
    }
    (void)fclose(fp);  // it was only read
}

void memory_limit(int64_t most, int64_t untouched) {
    // Large blocks are mappings of their own, always: what is freed of them must count no more. By itself the
    // allocator would serve them from its heap, where pieces are left over, once the first was freed.
    (void)mallopt(M_MMAP_THRESHOLD, LARGE_BLOCK);  // a fixed good value is not refused
    int64_t space, resident;
    memory_taken(&space, &resident);
    struct rlimit limit;
    if (getrlimit(RLIMIT_AS, &limit) != 0) return;
    const auto wanted = static_cast<rlim_t>(space + untouched + std::max<int64_t>(most - resident, 0));
    limit.rlim_cur = std::min(wanted, limit.rlim_max);
    (void)setrlimit(RLIMIT_AS, &limit);  // lowering, or raising to the hard limit at most, is always allowed
}

#else

void memory_limit(int64_t /*most*/, int64_t /*untouched*/) {}

#endif
