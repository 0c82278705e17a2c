// Makes forks cheaper by having the program's own pages mapped before the first one.
#ifndef KELPD_SERVER_PREFAULT_H
#define KELPD_SERVER_PREFAULT_H

// Opens what prefault_program() takes: apart from it, since a process that was confined in between cannot. Returns
// -1 where it cannot be had.
[[nodiscard]] int prefault_open();

// Maps the code and constants that serving a request takes, and makes fork() copy these mappings to its
// children. Without it a child begins with none of them and takes a page fault for every stretch of code that
// it runs: a dozen for a small request, a third of its processor time.
//
// To be called once, right before the loop that forks, in a process with one thread: what the parent runs
// between this and the forks is mapped and copied too. Changes no byte and no protection. It is an
// optimisation only: where the kernel refuses a step, the children fault as they otherwise would.
//
// mem  what prefault_open() gave; closed
void prefault_program(int mem);

#endif
