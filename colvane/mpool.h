/* mpool: a pool that remembers every block allocated from it, so that one call releases them all.
 *
 * The library gives each writer and each scanner a pool of its own; closing a handle destroys its pool, on
 * success and on error paths alike. A pool belongs to one owner in one thread: there is no locking. Every
 * pool and every block starts with a magic value that is checked on use; a wrong one means memory was
 * overwritten, and the process ends through mpool_crash() rather than go on with it.
 *
 * Failed allocations return null and leave the pool as it was. Sizes are bytes. Nothing is printed otherwise.
 */
#ifndef COLVANE_MPOOL_H
#define COLVANE_MPOOL_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define MPOOL_MAGIC INT64_C(0xCDAB77AA)

typedef struct mpool_item_t mpool_item_t;
typedef struct mpool_t mpool_t;

/* The header before every block; the caller's bytes follow it directly. Its size is a multiple of 16, so
 * they are aligned to 16. Blocks form a doubly linked list, newest first. */
struct mpool_item_t {
    int64_t magic;      /* MPOOL_MAGIC */
    mpool_item_t* prev; /* newer neighbour, null for the head */
    mpool_item_t* next; /* older neighbour, null for the oldest */
    int64_t alloc_sz;   /* bytes the caller asked for */
    __extension__ __int128 dummy_force_align;
};

struct mpool_t {
    int64_t magic;      /* MPOOL_MAGIC while the pool is valid */
    mpool_item_t* head; /* newest live block, owned; null when the pool is empty */
};

/* Returns a new empty pool, owned by the caller (mpool_destroy), or null without memory. */
mpool_t* mpool_create(void);

/* Returns a new block of `nb` bytes aligned to 16, owned by the pool, or null. Its contents are undefined. */
void* mpool_alloc(mpool_t* mp, size_t nb);

/* As mpool_alloc, zero-filled. */
void* mpool_calloc(mpool_t* mp, size_t nb);

/* Releases one block. `ptr` is a live block of this pool, never null. */
void mpool_free(mpool_t* mp, void* ptr);

/* Returns a block of at least `nb` bytes with the contents of `ptr`. A null `ptr` allocates. A block that is
 * large enough already is returned unchanged (blocks never shrink); otherwise the old block is released. Null
 * without memory: the old block then stays valid. */
void* mpool_realloc(mpool_t* mp, void* ptr, size_t nb);

/* Returns a pooled copy of `str`, or null without memory. */
char* mpool_strdup(mpool_t* mp, const char* str);

/* Returns a pooled copy of at most `n` characters of `str`, always NUL-terminated, or null without memory.
 * Bytes after the n-th are not looked at. */
char* mpool_strndup(mpool_t* mp, const char* str, int n);

/* Releases every block; the pool stays usable. */
void mpool_reset(mpool_t* mp);

/* Releases every block and the pool. `mp` is never null. */
void mpool_destroy(mpool_t* mp);

/* Prints "FATAL: internal error at FILE:LINE" to standard error, where FILE is the source file's name without
 * its folders, and ends the process with status 1. */
#ifdef __cplusplus
[[noreturn]]
#else
_Noreturn
#endif
void mpool_crash(const char* file, int line);

#ifdef __cplusplus
}
#endif
#endif
