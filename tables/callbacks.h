// From the runtime's events to an application's handlers. Handlers are weak symbols; a missing one is success with
// a trace. Nothing is cached and no argument is looked at.
#pragma once

#include "tables/table_model.h"

namespace trellis::table {

/// Calls the handler with the arguments as they came, or says that there is none.
template <class T, says Missing, class Handler, class... Argument>
inline void notify(const call& c, Handler handler, Argument... argument) {
    c.clear_last_error();
    if (handler != nullptr) {
        handler(argument...);
        return;
    }
    *c.error = 0;
    say<T, Missing>();
}

template <class T>
void table_record_create_cb(loom_handle* handle, u32 domain, u64 a, u64 b, u32* err) {
    const call c{handle, domain, err};
    if (!c.pending())
        notify<T, says::table_record_create_cb_called>(c, T::create_handler, handle, domain, a, b, err);
}

template <class T>
void table_record_modify_cb(loom_handle* handle, u32 domain, u64 a, u64 b, u32* err) {
    const call c{handle, domain, err};
    if (!c.pending())
        notify<T, says::table_record_modify_cb_called>(c, T::modify_handler, handle, domain, a, b, err);
}

template <class T>
void table_record_delete_cb(loom_handle* handle, u32 domain, u64 a, u64 b, u32* err) {
    const call c{handle, domain, err};
    if (!c.pending())
        notify<T, says::table_record_delete_cb_called>(c, T::delete_handler, handle, domain, a, b, err);
}

/// A DM event without a handler of its own goes to the plain one, with its record as second value.
template <class T>
void table_record_create_dm_cb(loom_handle* handle, u32 domain, u64 a, u32* err) {
    const call c{handle, domain, err};
    if (c.pending()) return;
    notify<T, says::table_record_create_dm_cb_called>(c, T::create_dm_handler, handle, domain, a, err);
    if (T::create_dm_handler != nullptr) return;
    notify<T, says::table_record_create_cb_called>(c, T::create_handler, handle, domain, u64{0}, a, err);
}

template <class T>
void table_record_delete_dm_cb(loom_handle* handle, u32 domain, u64 a, u32* err) {
    const call c{handle, domain, err};
    if (c.pending()) return;
    notify<T, says::table_record_delete_dm_cb_called>(c, T::delete_dm_handler, handle, domain, a, err);
    if (T::delete_dm_handler != nullptr) return;
    notify<T, says::table_record_delete_cb_called>(c, T::delete_handler, handle, domain, u64{0}, a, err);
}

template <class T>
void table_record_grouping_cb(loom_handle* handle, u32 domain, u64 a, u32* err, u64 b, u64 c_value, u32 d, u64 e) {
    const call c{handle, domain, err};
    if (!c.pending())
        notify<T, says::table_record_grouping_cb_called>(c, T::grouping_handler, handle, domain, a, err, b,
                                                         c_value, d, e);
}

template <class T>
void table_record_free_cb(loom_handle* handle, u32 domain, u64 a, u32 d, u32* err, u64 b) {
    const call c{handle, domain, err};
    if (!c.pending())
        notify<T, says::table_record_free_cb_called>(c, T::free_handler, handle, domain, a, d, err, b);
}

} // namespace trellis::table
