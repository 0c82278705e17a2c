// fork() leaves out the page tables of a mapping that it takes to be the file's alone, since faults can fill
// them again; it copies those of a mapping with private pages of its own (Linux, mm/memory.c,
// vma_needs_copy). So one page of each of the program's read-only segments is made private, by writing a byte
// of it back over itself: through /proc/self/mem, where a debugger's writes go, and not by making code
// writable for a moment, which a hardened service may not do.
//
// Copying and dropping a page's entry costs a child a tenth of a microsecond, and the program has more pages
// than a request needs. So those that serving does not use, most of the C library, are taken out again:
// serving.ld tells which they are. A child that needs one faults it in.
#include "server/prefault.h"

#include <fcntl.h>
#include <link.h>
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

#ifndef MADV_POPULATE_READ
#define MADV_POPULATE_READ 22  // Linux 5.14
#endif

// Bounds that serving.ld sets: the code and the constants that serving a request takes. Null in a program that was
// linked without it, which keeps all its pages.
extern "C" {
extern char serving_text_begin[] __attribute__((weak, visibility("hidden")));
extern char serving_text_end[] __attribute__((weak, visibility("hidden")));
extern char serving_rodata_begin[] __attribute__((weak, visibility("hidden")));
extern char serving_rodata_end[] __attribute__((weak, visibility("hidden")));
}

namespace {
// Addresses from begin to end; nothing when both are 0.
struct range_t {
    uintptr_t begin;
    uintptr_t end;
};

constexpr int MAX_UNUSED = 4;  // what lies before and after what serving takes, in two segments

struct program_t {
    int mem;           // /proc/self/mem
    uintptr_t pagesz;  // bytes of a page
    range_t serving[2];
    range_t unused[MAX_UNUSED];
    int nunused;
};
}  // namespace

// The loader and the linker say where things lie in numbers.
static void* pointer_to(uintptr_t address) {
    return reinterpret_cast<void*>(address);  // NOLINT(performance-no-int-to-ptr)
}

static range_t range_of(const char* begin, const char* end) {
    return {reinterpret_cast<uintptr_t>(begin), reinterpret_cast<uintptr_t>(end)};
}

// Maps a segment, and makes the page at `own`, one that stays mapped, the process's own.
static void prefault_segment(const program_t* program, uintptr_t begin, uintptr_t end, uintptr_t own) {
    begin &= ~(program->pagesz - 1);
    end = (end + program->pagesz - 1) & ~(program->pagesz - 1);
    const void* const byte = pointer_to(own);
    if (pwrite(program->mem, byte, 1, static_cast<off_t>(own)) != 1) return;
    // Else fork copies what the parent has used.
    (void)madvise(pointer_to(begin), end - begin, MADV_POPULATE_READ);
}

// Called for each loaded object, the program first; the others are left as they are.
static int prefault_object(struct dl_phdr_info* info, size_t, void* arg) {
    program_t* const program = static_cast<program_t*>(arg);
    const bool laid_out = program->serving[0].end != 0;
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const ElfW(Phdr)* p = &info->dlpi_phdr[i];
        if (p->p_type != PT_LOAD || (p->p_flags & PF_W)) continue;
        const uintptr_t begin = info->dlpi_addr + p->p_vaddr, end = begin + p->p_memsz;
        if (!laid_out) prefault_segment(program, begin, end, begin);
        for (const range_t& serving : program->serving) {
            if (!laid_out || serving.begin < begin || serving.begin >= end) continue;
            prefault_segment(program, begin, end, serving.begin);
            program->unused[program->nunused++] = {begin, serving.begin};
            program->unused[program->nunused++] = {serving.end, end};
        }
    }
    return 1;  // the walk ends here
}

// Takes the pages that lie wholly within a range out of the page table; the next use faults them in again.
static void unmap_pages(const program_t* program, range_t range) {
    const uintptr_t begin = (range.begin + program->pagesz - 1) & ~(program->pagesz - 1);
    const uintptr_t end = range.end & ~(program->pagesz - 1);
    if (begin < end) (void)madvise(pointer_to(begin), end - begin, MADV_DONTNEED);
}

int prefault_open() { return open("/proc/self/mem", O_RDWR | O_CLOEXEC); }

void prefault_program(int mem) {
    program_t program = {.mem = mem,
                         .pagesz = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE)),
                         .serving = {range_of(serving_text_begin, serving_text_end),
                                     range_of(serving_rodata_begin, serving_rodata_end)},
                         .unused = {},
                         .nunused = 0};
    (void)dl_iterate_phdr(prefault_object, &program);
    close(program.mem);
    // Last, since a fault maps the pages around it too: from here on the parent runs nothing but what it
    // keeps.
    for (int i = 0; i < program.nunused; i++) unmap_pages(&program, program.unused[i]);
}
