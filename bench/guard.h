// Guard: measuring programs refuse builds whose figures would mean nothing.
#ifndef BENCH_GUARD_H
#define BENCH_GUARD_H

// Returns null when this build is fit for measuring, else why it is not (a constant text). The environment
// variable KELPD_BENCH_ANY_BUILD, set to anything but nothing, lets every build pass, so that the programs
// themselves can be tested.
const char* guard_refusal();

#endif
