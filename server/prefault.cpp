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

// Bounds that serving.ld sets: the code up to the first and the constants between the others are what serving
// a request takes. Null in a program that was linked without it, which keeps all its pages.
extern "C" {
extern char serving_text_end[] __attribute__((weak));
extern char serving_rodata_begin[] __attribute__((weak));
extern char serving_rodata_end[] __attribute__((weak));
}

struct program_t {
    int mem;               // /proc/self/mem
    uintptr_t pagesz;      // bytes of a page
    uintptr_t rodata_end;  // where the segment with the constants ends; 0 until found
};

// The loader and the linker say where things lie in numbers.
static void* pointer_to(uintptr_t address) {
    return reinterpret_cast<void*>(address);  // NOLINT(performance-no-int-to-ptr)
}

static void prefault_segment(const program_t* program, uintptr_t begin, uintptr_t end) {
    begin &= ~(program->pagesz - 1);
    end = (end + program->pagesz - 1) & ~(program->pagesz - 1);
    void* const first = pointer_to(begin);
    if (pwrite(program->mem, first, 1, static_cast<off_t>(begin)) != 1) return;
    (void)madvise(first, end - begin, MADV_POPULATE_READ);  // else fork copies what the parent has used
}

// Called for each loaded object, the program first; the others are left as they are.
static int prefault_object(struct dl_phdr_info* info, size_t, void* arg) {
    program_t* const program = static_cast<program_t*>(arg);
    const uintptr_t rodata = reinterpret_cast<uintptr_t>(serving_rodata_begin);
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const ElfW(Phdr)* p = &info->dlpi_phdr[i];
        if (p->p_type != PT_LOAD || (p->p_flags & PF_W)) continue;
        const uintptr_t begin = info->dlpi_addr + p->p_vaddr, end = begin + p->p_memsz;
        prefault_segment(program, begin, end);
        if (begin <= rodata && rodata < end) program->rodata_end = end;
    }
    return 1;  // the walk ends here
}

// Takes the pages that lie wholly within a range out of the page table; the next use faults them in again.
static void unmap_pages(const program_t* program, uintptr_t begin, uintptr_t end) {
    begin = (begin + program->pagesz - 1) & ~(program->pagesz - 1);
    end &= ~(program->pagesz - 1);
    if (begin < end) (void)madvise(pointer_to(begin), end - begin, MADV_DONTNEED);
}

void prefault_program() {
    program_t program = {.mem = open("/proc/self/mem", O_RDWR | O_CLOEXEC),
                         .pagesz = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE)),
                         .rodata_end = 0};
    if (program.mem == -1) return;
    (void)dl_iterate_phdr(prefault_object, &program);
    close(program.mem);
    if (program.rodata_end == 0) return;
    // Last, since a fault maps the pages around it too: from here on the parent runs nothing but what it
    // keeps.
    unmap_pages(&program, reinterpret_cast<uintptr_t>(serving_text_end),
                reinterpret_cast<uintptr_t>(serving_rodata_begin));
    unmap_pages(&program, reinterpret_cast<uintptr_t>(serving_rodata_end), program.rodata_end);
}
