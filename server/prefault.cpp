// fork() leaves out the page tables of a mapping that it takes to be the file's alone, since faults can fill
// them again; it copies those of a mapping with private pages of its own (Linux, mm/memory.c,
// vma_needs_copy). So one page of each of the program's read-only segments is made private, by writing a byte
// of it back over itself: through /proc/self/mem, where a debugger's writes go, and not by making code
// writable for a moment, which a hardened service may not do.
#include "server/prefault.h"

#include <fcntl.h>
#include <link.h>
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

#ifndef MADV_POPULATE_READ
#define MADV_POPULATE_READ 22  // Linux 5.14
#endif

static void prefault_segment(int mem, uintptr_t begin, uintptr_t end) {
    const uintptr_t pagesz = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    begin &= ~(pagesz - 1);
    end = (end + pagesz - 1) & ~(pagesz - 1);
    void* const first = reinterpret_cast<void*>(begin);
    if (pwrite(mem, first, 1, static_cast<off_t>(begin)) != 1) return;
    (void)madvise(first, end - begin, MADV_POPULATE_READ);  // else fork copies what the parent has used
}

// Called for each loaded object, the program first; the others are left as they are.
static int prefault_object(struct dl_phdr_info* info, size_t, void* arg) {
    const int mem = *static_cast<const int*>(arg);
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const ElfW(Phdr)* p = &info->dlpi_phdr[i];
        if (p->p_type != PT_LOAD || (p->p_flags & PF_W)) continue;
        const uintptr_t begin = info->dlpi_addr + p->p_vaddr;
        prefault_segment(mem, begin, begin + p->p_memsz);
    }
    return 1;  // the walk ends here
}

void prefault_program() {
    int mem = open("/proc/self/mem", O_RDWR | O_CLOEXEC);
    if (mem == -1) return;
    (void)dl_iterate_phdr(prefault_object, &mem);
    close(mem);
}
