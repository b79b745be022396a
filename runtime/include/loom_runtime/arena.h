/* Arena memory from outside: how much is in use, whether it is sound, allocation failures on demand, and the debug
 * arena, which finds stores that nobody announced. Programs that only use databases do not need this header.
 *
 * The debug arena keeps a shadow copy of the memory. A byte may change when it was announced to the write hook or
 * to the arena since the last check, or when it lies in a block that was allocated since then (fresh memory needs
 * no announcements). Everything else is an unannounced store: it would be missing from the undo log. Statistics
 * counters of type information are exempt, since bundles raise some of them unannounced.
 *
 * Memory of a mapped database is compared between loom_write_begin and its commit only, since other processes
 * change it at other times; commit checks by itself. */
#ifndef LOOM_RUNTIME_ARENA_H
#define LOOM_RUNTIME_ARENA_H

#include <loom/handle.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct loom_arena_usage {
    uint64_t blocks;      /**< blocks in use */
    uint64_t bytes;       /**< bytes in use, block headers included */
    uint64_t extent;      /**< bytes that the arena has now */
    uint64_t reserve;     /**< bytes it can ever have */
    uint64_t base;        /**< address of its first byte */
    uint64_t allocations; /**< allocations through this handle since it was opened */
} loom_arena_usage;
void loom_arena_usage_get(loom_handle* handle, loom_arena_usage* usage);

/** Walks the whole arena and compares its records with each other: block sizes, free lists, roots. 0 when it is
 *  sound; otherwise 22 and a text (loom_error_text) that names the first fault and its offset. */
uint32_t loom_arena_verify(loom_handle* handle);

/** Lets the allocation after `count` further ones in the handle's database fail, and all after it until called with
 *  UINT64_MAX. Counted are those of handles on it in this process and those of the runtime's own structures. */
void loom_arena_fail_after(loom_handle* handle, uint64_t count);

/** Visits the blocks in use, in order of address. `tag` is the call-site tag of the allocation, known only for
 *  blocks that were allocated by this process while the debug arena was on. */
typedef void (*loom_block_fn)(void* block, uint64_t size, uint32_t tag, void* context);
void loom_arena_each_block(loom_handle* handle, loom_block_fn visit, void* context);

/** A run of bytes that changed unannounced. */
typedef struct loom_unannounced_store {
    const void* address;
    uint64_t offset; /**< of `address` in the arena */
    uint64_t length;
    const void* block; /**< the block that it lies in; null: the arena's own records or free memory */
    uint64_t block_size;
    uint32_t block_tag;       /**< call-site tag of the block's allocation, 0 if not known */
    uint32_t at_announcement; /**< 1: found when the range was announced later, 0: found by a check */
} loom_unannounced_store;
typedef void (*loom_unannounced_fn)(const loom_unannounced_store* store, void* context);

/** Turns the debug arena on. `report` is called for each run found; null prints it to the standard error. */
uint32_t loom_debug_arena_start(loom_handle* handle, loom_unannounced_fn report, void* context);
/** Compares, reports, and starts over from the present contents. Returns the runs found by this call and by
 * announcements since the last check. */
uint64_t loom_debug_arena_check(loom_handle* handle);
/** Leaves a range out of all further comparisons (`exempt` 1) or takes it in again. */
void loom_debug_arena_exempt(loom_handle* handle, const void* address, size_t length, uint32_t exempt);
void loom_debug_arena_stop(loom_handle* handle);

#ifdef __cplusplus
}
#endif
#endif
