// Action messages: requests that one process sends another. A small object with a header and, as a rule, one
// payload record; receiving one means decoding it and calling a handler. What is inside the payload stands in
// codec/; which messages a bundle takes and what starts the recorder belongs to the runtime. Called by the
// generated exports.
//
// A generated model reads:
//
//     struct custom_rpc_action_simple {                          // in namespace bundle_<bundle>::messages
//         using bundle = bundle_<bundle>::bundle;
//         using object = ::custom_rpc_action_simple_action_message; // C struct: header, msg_header, payload
//         using payload = types::custom_rpc_type_simple;         // void: none
//         static constexpr auto payload_field = &object::custom_rpc_type_simple;
//         static constexpr char display_name[] = "custom_rpc_action_simple_action";
//         static constexpr int trace_unit = 3;
//         static constexpr u32 trace_base = 0;
//         static const char* name_text();                        // message_action_<message>_name
//         static const u8* luid();
//         static loom_type_info* type_info();
//         static constexpr auto unmarshal_only = &::..._action_message_unmarshal_only; // counted
//         static constexpr auto handler = &::<bundle>_..._action_message_handler;      // weak, tested at each
//         call
//     };
//
// A message belongs to one thread. No lock is taken and no store is announced.
#pragma once

#include "messages/codec.h"
#include "messages/dispatch.h"
#include "messages/lifecycle.h"
