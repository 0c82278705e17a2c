// How much memory the process may take.
#ifndef KELPD_SAMPLER_MEMORY_H
#define KELPD_SAMPLER_MEMORY_H

#include <stdint.h>

// Lets the process take address space until `most` bytes of memory would be resident if all of the new space
// were touched, and `untouched` bytes more for what hardly will be. Allocations beyond that fail. A limit that
// stands already is never widened past its hard part. Without effect under a sanitizer, whose shadow takes
// address space without end.
void memory_limit(int64_t most, int64_t untouched);

#endif
