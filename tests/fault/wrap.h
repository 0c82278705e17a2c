// Allocations and system calls of the library under the tests' control: the linker sends them through here
// (--wrap). One kind of call at a time can be made to fail at its n-th call, and live and peak bytes are
// counted throughout.
#ifndef KELPD_TESTS_FAULT_WRAP_H
#define KELPD_TESTS_FAULT_WRAP_H

#include <cstdint>
#include <utility>
#include <vector>

namespace wrap {

enum kind_t { NONE, ALLOC, FOPEN, FWRITE, FCLOSE, OPEN, PREAD };
enum mode_t { FAIL, SHORT, INTERRUPT };  // SHORT and INTERRUPT are for PREAD

// Lets the n-th call of this kind from now on, counted from 1, fail. `error` becomes its errno.
void fail_nth(kind_t kind, int n, int error, mode_t mode = FAIL);

// Ends that and returns whether the call was reached.
bool disarm();

// Bytes of the library's allocations alive, and the most there were since the last reset.
int64_t live();
int64_t peak();
void reset_peak();

// The read-ahead hints given since this was last called: offset and length of each.
std::vector<std::pair<int64_t, int64_t>> take_hints();

}  // namespace wrap
#endif
