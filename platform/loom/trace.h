/* The binary trace facility. A call passes the address of its unit's 16 hash bytes, the index of the statement
 * in that unit, the module number, the level word (level in the top byte) and raw arguments. Texts stay in
 * sections that are not loaded. All functions may be called from any thread at any time; module number 0
 * stands for a module that is not registered yet. */
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
