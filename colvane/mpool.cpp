// mpool: a doubly linked list of blocks, each after a header with a magic value. One system allocation per
// block and a constant-time free; the header is found by stepping back from the caller's pointer.

#include "colvane/mpool.h"

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static_assert(sizeof(mpool_item_t) % 16 == 0, "the caller's bytes follow the header on a multiple of 16");

// The file's name without its folders, whatever path it was compiled under.
static const char* module_name(const char* file) {
    const char* slash = strrchr(file, '/');
    return slash ? slash + 1 : file;
}

void mpool_crash(const char* file, int line) {
    fprintf(stderr, "FATAL: internal error at %s:%d\n", module_name(file), line);
    exit(1);
}

#define CHECK_MAGIC(p)                              \
    do {                                            \
        if ((p)->magic != MPOOL_MAGIC) [[unlikely]] \
            mpool_crash(__FILE__, __LINE__);        \
    } while (0)

static mpool_item_t* item_of(void* ptr) {
    return reinterpret_cast<mpool_item_t*>(static_cast<char*>(ptr) - sizeof(mpool_item_t));
}

mpool_t* mpool_create() {
    auto* mp = static_cast<mpool_t*>(calloc(1, sizeof(mpool_t)));
    if (mp) mp->magic = MPOOL_MAGIC;
    return mp;
}

// Bytes of a block with its header; false when that is no size.
static bool whole_size(size_t* ret, size_t nb) {
    return nb <= static_cast<size_t>(INT64_MAX) && !__builtin_add_overflow(nb, sizeof(mpool_item_t), ret);
}

// Makes new memory the head of the list.
static void* add_block(mpool_t* mp, void* mem, size_t nb) {
    CHECK_MAGIC(mp);
    auto* item = static_cast<mpool_item_t*>(mem);
    item->magic = MPOOL_MAGIC;
    item->prev = nullptr;
    item->next = mp->head;
    item->alloc_sz = static_cast<int64_t>(nb);
    if (mp->head) mp->head->prev = item;
    mp->head = item;
    return item + 1;
}

void* mpool_alloc(mpool_t* mp, size_t nb) {
    void* mem = nullptr;
    size_t total;
    if (!whole_size(&total, nb) || posix_memalign(&mem, 16, total) != 0) return nullptr;
    return add_block(mp, mem, nb);
}

// calloc aligns to 16 as well, and knows which memory is fresh from the system and zero already: a large block
// takes no page before it is written to.
static_assert(alignof(max_align_t) >= 16);
constexpr size_t CALLOC_MIN = size_t{1} << 20;

void* mpool_calloc(mpool_t* mp, size_t nb) {
    size_t total;
    if (nb >= CALLOC_MIN) {
        void* mem = whole_size(&total, nb) ? calloc(1, total) : nullptr;
        return mem ? add_block(mp, mem, nb) : nullptr;
    }
    void* ptr = mpool_alloc(mp, nb);
    if (ptr) memset(ptr, 0, nb);
    return ptr;
}

void mpool_free(mpool_t* mp, void* ptr) {
    CHECK_MAGIC(mp);
    mpool_item_t* item = item_of(ptr);
    CHECK_MAGIC(item);
    if (item->next) item->next->prev = item->prev;
    if (item->prev)
        item->prev->next = item->next;
    else
        mp->head = item->next;
    free(item);
}

void* mpool_realloc(mpool_t* mp, void* ptr, size_t nb) {
    if (!ptr) return mpool_alloc(mp, nb);
    CHECK_MAGIC(mp);
    CHECK_MAGIC(item_of(ptr));
    const int64_t alloc_sz = item_of(ptr)->alloc_sz;
    if (alloc_sz >= static_cast<int64_t>(nb)) return ptr;
    void* bigger = mpool_alloc(mp, nb);
    if (!bigger) return nullptr;
    memcpy(bigger, ptr, static_cast<size_t>(alloc_sz));
    mpool_free(mp, ptr);
    return bigger;
}

char* mpool_strdup(mpool_t* mp, const char* str) {
    const size_t sz = strlen(str) + 1;
    auto* copy = static_cast<char*>(mpool_alloc(mp, sz));
    if (copy) memcpy(copy, str, sz);
    return copy;
}

char* mpool_strndup(mpool_t* mp, const char* str, int n) {
    const size_t len = n < 1 ? 0 : strnlen(str, static_cast<size_t>(n));
    auto* copy = static_cast<char*>(mpool_alloc(mp, len + 1));
    if (!copy) return nullptr;
    memcpy(copy, str, len);
    copy[len] = '\0';
    return copy;
}

void mpool_reset(mpool_t* mp) {
    CHECK_MAGIC(mp);
    for (mpool_item_t* item = mp->head; item;) {
        CHECK_MAGIC(item);
        mpool_item_t* next = item->next;
        free(item);
        item = next;
    }
    mp->head = nullptr;
}

void mpool_destroy(mpool_t* mp) {
    mpool_reset(mp);
    free(mp);
}
