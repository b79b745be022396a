/* The binary trace facility, as code that traces sees it. A call passes the address of its unit's 16 hash
 * bytes, the index of the statement in that unit, the module number, the level word (level in the top byte)
 * and raw arguments. Texts stay in sections that are not loaded. Levels, files and readers stand in
 * <loom_runtime/trace.h>.
 *
 * Guarantees
 *   - Emitting formats nothing, waits for nobody and, but for a thread's first record, allocates nothing: it
 *     copies some tens of bytes into a buffer of the thread. While its level is off, a statement costs a call
 *     and a comparison.
 *   - Strings are copied before the call returns, at most 480 characters of each.
 *   - A thread's records stay in their order. A record of level 0 is written out before the call returns.
 *   - Nothing fails: no call sets an error or ends the process. Records that had no room are counted.
 *
 * Caveats
 *   - Without an open file or a drain a full buffer loses what it holds. A process that is killed loses what
 *     its threads have buffered, but for records of level 0; one that calls exit() writes it out.
 *   - With a file open, the thread that finds its buffer full writes it out, and waits for the disk.
 *   - Records are ordered by a clock that processors share; between threads some tens of nanoseconds say
 *     nothing.
 *   - Text of users goes into traces as it is. A reader escapes it.
 *
 * Lifetime and ownership. Unit hashes and module names must stay until the process ends: records refer to
 * them, and bundles that are unloaded leave their names behind. Everything else is copied.
 *
 * Threads. All functions may be called from any thread at any time, also while threads begin and end. Module
 * number 0 stands for a module that is not registered yet.
 *
 * Fork. A child is a writer of its own, into the same file where one is open. What was buffered at that moment
 * is its parent's to write.
 *
 * Signals. Not for signal handlers: a record that a handler traces in the middle of another one of its thread
 * is damaged, and so is the other. */
#ifndef LOOM_TRACE_H
#define LOOM_TRACE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Registers a module once: fills `*module_id` when it is 0. Returns 0 or an error number. */
uint32_t spoor_module_init_fn(const char* name, uint16_t* module_id, uint32_t* state);
/** Non-zero if messages of that level are on for the module. */
uint32_t spoor_module_test(uint16_t module_id, uint32_t level);
/** Tracing of the runtime's own trees, registered when a table is opened. */
void trans_avl_trace_init(void);
void trans_gbt_trace_init(void);

/** Emit functions; each digit is one argument: 1 a zero-ended string (null allowed), 4 a 32-bit integer, 5 a
 *  pointer. Strings are copied into the record. */
void __SPf_0(const uint8_t* unit, uint32_t index, uint16_t module_id, uint32_t level);
void __SPf_1(const uint8_t* unit, uint32_t index, uint16_t module_id, uint32_t level, const char* a);
void __SPf_4(const uint8_t* unit, uint32_t index, uint16_t module_id, uint32_t level, uint32_t a);
void __SPf_11(const uint8_t* unit, uint32_t index, uint16_t module_id, uint32_t level, const char* a,
              const char* b);
void __SPf_14(const uint8_t* unit, uint32_t index, uint16_t module_id, uint32_t level, const char* a, uint32_t b);
void __SPf_44(const uint8_t* unit, uint32_t index, uint16_t module_id, uint32_t level, uint32_t a, uint32_t b);
void __SPf_51(const uint8_t* unit, uint32_t index, uint16_t module_id, uint32_t level, const void* a,
              const char* b);
void __SPf_111(const uint8_t* unit, uint32_t index, uint16_t module_id, uint32_t level, const char* a,
               const char* b, const char* c);
void __SPf_444(const uint8_t* unit, uint32_t index, uint16_t module_id, uint32_t level, uint32_t a, uint32_t b,
               uint32_t c);

#ifdef __cplusplus
}
#endif
#endif
