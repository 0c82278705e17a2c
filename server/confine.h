// Takes from the daemon, and from all that it starts, what serving does not need, so that a request that found a
// fault in it would win little. Both means are optional: what the kernel does not have, or does not allow here,
// is gone without. Nothing that is given up can be had back.
#ifndef KELPD_SERVER_CONFINE_H
#define KELPD_SERVER_CONFINE_H

// For the process, its children and the sampler that they run, to be called once, in the data directory, before
// the first request.
//
// Files (Landlock): the data directory, what base/ and its directories lead to as links now, and the directory of
// temporary files can be read and written, but nothing in them run; programs on the search path, and what stands
// beside its directories (an interpreter's library), can be run and read with the libraries that they take; all else
// cannot be opened. Links, devices, pipes and sockets cannot be
// made anywhere. Descriptors that are open stay usable. Not done when LD_PRELOAD is set: whoever puts a library
// into programs (valgrind is one) has reasons that this cannot know.
//
// System calls (seccomp): those that serving, a shell and an ordinary program take. All others fail with ENOSYS,
// among them those that open a connection, look into another process or change what it may do.
//
// With `verbose` says on standard error what was done. In a build with sanitizers, which have needs of their own,
// nothing is.
void confine_process();

// For a child that has only an upload to store: no program can be started from here on, and no system call made
// but those of storing. It takes some hundred microseconds of processor time, a tenth of an upload, but as much
// as a whole small request; so the other children do without.
void confine_upload();

#endif
