/* The binary trace facility from the side of the host: levels, taps, files, and turning records into text.
 *
 * Emitting copies a record of raw arguments into a buffer of the emitting thread; nothing is formatted and no lock
 * is taken. Buffers are emptied into the trace file while one is open (when they are full, on loom_trace_flush,
 * when a thread ends), or by loom_trace_drain; without either a full buffer loses its old records, which is
 * counted. A record of level 0 is written out at once, and its text goes to the standard error stream as well.
 *
 * Any number of processes and threads may write one trace file: each appends whole blocks of entries under a lock of
 * the file. Nothing that is there is overwritten; who wants a fresh file removes the old one. Without room on the disk,
 * or when a stopped process keeps the lock, a writer loses the block, and its next one tells how many records that
 * were.
 *
 * A trace file holds, little-endian:
 *   32 bytes   "LOOMTRCE", u32 version 2, u32 blocks that were cut off, u64 time at which it was made, u64 place up
 *              to which it is whole
 *   blocks     0  u32 0x4B4C4254   4  u32 size of the block   8  u32 process id   12  u32 1: its writer's last one
 *             16  u64 start time of the writer   24  u64 number, from 0   32  u64 records that the writer has lost
 *             40  u64 checksum of the block
 *             48  entries, each a multiple of 8 bytes long:
 *     0  u16 size of the entry      2  u8 kind: 1 a record, 2 the name of a module   3  u8 level
 *     4  u16 module number          6  u16 arguments, one hexadecimal digit each (1, 4 or 5), the first lowest
 *     8  u32 index in the unit     12  u32 thread id
 *    16  u64 time in nanoseconds since 1970-01-01T00:00:00Z
 *    24  16 bytes unit hash
 *    40  arguments: 1 u16 length (0xFFFF: null) and the characters, at most LOOM_TRACE_TEXT_MAX; 4 u32; 5 u64
 * The entry of a module has its name as its one argument and holds for the writer's entries behind it. Behind a
 * writer that was killed in the middle of a block the rest of it is cut off.
 *
 * All functions may be called from any thread. Callbacks must not call functions of this header. */
#ifndef LOOM_RUNTIME_TRACE_H
#define LOOM_RUNTIME_TRACE_H

#include <loom/trace.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define LOOM_TRACE_TEXT_MAX 480u
#define LOOM_TRACE_ARGUMENTS_MAX 3u

/** One argument of a record. */
typedef struct loom_trace_argument {
    uint32_t kind; /**< 1 a string, 4 a 32-bit number, 5 a pointer */
    uint32_t text_length;
    const char* text; /**< not terminated; null for a null pointer */
    uint64_t number;  /**< of kinds 4 and 5 */
} loom_trace_argument;

/** A record as the emitter gave it. Texts are valid during the callback only. */
typedef struct loom_trace_record {
    uint8_t unit[16];
    uint32_t index;
    uint32_t level;
    uint32_t thread;
    uint16_t module_id;
    uint16_t argument_count;
    uint64_t time;           /**< nanoseconds since 1970-01-01T00:00:00Z */
    const char* module_name; /**< "" for module 0 */
    loom_trace_argument arguments[LOOM_TRACE_ARGUMENTS_MAX];
} loom_trace_record;
typedef void (*loom_trace_fn)(const loom_trace_record* record, void* context);

/** Messages up to this level are on; of one module, or (null) of all, later ones included. The start is 6. 2 for
 * an unknown module. */
uint32_t loom_trace_set_level(const char* module, uint32_t level);
/** Shows every record that is on to `tap` in the thread that emits it, before it goes into the buffer; calls do
 * not overlap. Null takes the tap away. */
void loom_trace_set_tap(loom_trace_fn tap, void* context);

/** Writes to a trace file from now on, behind what is there; it is made if needed. 17 when one is open, 22 when the
 *  file is no trace file or one of another version, otherwise an errno value; with a text. A child of a fork goes on
 *  as a writer of its own, without the records that were buffered at that moment. */
uint32_t loom_trace_open(const char* path);
/** Writes all buffers into the open file. */
void loom_trace_flush(void);
/** Writes all buffers, and that nothing else was lost. The end of the process does this by itself. */
void loom_trace_close(void);
/** Hands all buffered records to `visit`, in order of time, and takes them out of the buffers; `visit` null drops
 *  them. Returns their number. */
uint64_t loom_trace_drain(loom_trace_fn visit, void* context);
/** Records that this process has lost since it began: in full buffers, and in blocks that could not be written. */
uint64_t loom_trace_lost(void);

/** What is known to be missing in a trace file. */
typedef struct loom_trace_losses {
    uint64_t records;      /**< lost by writers that went on */
    uint64_t blocks;       /**< cut off or missing: at most the last one of each writer that was killed */
    uint64_t open_writers; /**< that have not closed the file: they still write, or were killed with what they had
                            *   buffered */
} loom_trace_losses;

/** Reads a trace file, block by block as they were appended, and tells what is missing; `losses` may be null. 0, or
 *  an error number with a text; the records before the fault have been visited then. Others may write meanwhile. */
uint32_t loom_trace_read_file(const char* path, loom_trace_fn visit, void* context, loom_trace_losses* losses);

/** Texts of one bundle or of several, read from the sections `.spoor_luids_*` and `.spoor_format_strings` of their
 *  shared objects. */
typedef struct loom_trace_decoder loom_trace_decoder;
loom_trace_decoder* loom_trace_decoder_create(void);
void loom_trace_decoder_release(loom_trace_decoder* decoder);
/** Adds the texts of a shared object. 2 when it has no trace sections, 22 when they contradict each other; with a
 *  text that names file and section. */
uint32_t loom_trace_decoder_add(loom_trace_decoder* decoder, const char* path);
/** The stored text of a statement, with its leading blank and its length; null if it is not known. Not terminated;
 *  valid as long as the decoder. */
const char* loom_trace_decoder_text(const loom_trace_decoder* decoder, const uint8_t unit[16], uint32_t index,
                                    uint32_t* length);
/** Number of statements of a unit; 0 if it is not known. */
uint32_t loom_trace_decoder_unit_size(const loom_trace_decoder* decoder, const uint8_t unit[16]);
/** Units in the order in which they were added: stores the hash of unit `number` and returns 1, or 0 behind the
 * end. */
uint32_t loom_trace_decoder_unit(const loom_trace_decoder* decoder, uint32_t number, uint8_t unit[16]);
/** The message of a record: its text with the arguments put in, without the leading blank, terminated. An unknown
 *  statement gives its hash, index and arguments. Returns the length that the whole message has. */
size_t loom_trace_format(const loom_trace_decoder* decoder, const loom_trace_record* record, char* buffer,
                         size_t size);

#ifdef __cplusplus
}
#endif
#endif
