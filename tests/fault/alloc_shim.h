// What the shim and the test that steers it share: a mapped file.
#ifndef KELPD_TESTS_FAULT_ALLOC_SHIM_H
#define KELPD_TESTS_FAULT_ALLOC_SHIM_H

struct alloc_fault_t {
    int nth;      // the allocation that fails, from 1 on; 0 for none
    int not_pid;  // the process whose allocations do not count, or 0
    int count;    // allocations so far
    int fired;    // set when it was reached
};

// A program says that its main begins by asking for the priority of this: a call that is nobody else's.
constexpr int MARK_MAIN = 0x6d61696e;
#endif
