/* Message bundles and the message recorder, as the message layer sees them. */
#ifndef LOOM_MESSAGES_H
#define LOOM_MESSAGES_H

#include <loom/handle.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Checks that the message may go into the open bundle of the handle and adds it; sets `*err` if not. */
void bundle_message_validate_add(loom_handle* handle, uint32_t domain, const uint8_t* luid, const char* name,
                                 uint32_t* err);
/** Counts one more instance of the message in the bundle; sets `*err` when the bundle does not hold it. */
void bundle_message_increment_count(loom_handle* handle, const uint8_t* luid, uint32_t* err);
/** Non-zero: marshal failures are expected and go to level 7. */
uint32_t loomlib_suppress_messages_enabled(loom_handle* handle);
/** Non-zero when recording is on. */
uint32_t loomlib_msg_recorder_get_state(void);
/** The open output stream, or null. */
FILE* loomlib_msg_recorder_get_handle(void);

#ifdef __cplusplus
}
#endif
#endif
