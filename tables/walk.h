// Walking a table in the order of its tree: from a record, from either end, past a key, and over all records. The
// forms that leave sources aside stand in sources.h.
#pragma once

#include "tables/search.h"

namespace trellis::table {

enum class direction : u8 { forward, backward };

/// The neighbour of a record; no record has none.
template <class T, direction Way>
inline record_of<T>* step(loom_table* table, record_of<T>* from) {
    if (from == nullptr) return nullptr;
    e_avl_node* node = Way == direction::forward ? e_avl_get_next(table->avl_root, node_of(from), T::compare)
                                                 : e_avl_get_prev(table->avl_root, node_of(from), T::compare);
    return record_of_node<T>(node);
}

/// Which records a reader wants. A wanted source of 0 that need not match takes all but shadows.
struct filter {
    u8 src;
    bool match_src;
    bool skip_pending;

    bool pending_refused(const loom_table_record& record) const {
        return skip_pending && (record.record_flags & REC_PENDING_DESTROY) != 0;
    }
    /// The walkers' test: the wildcard leaves out shadows even where the source has to match.
    bool accepts(const loom_table_record& record) const {
        if (match_src && record.src != src) return false;
        if (src == 0 && record.src == shadow_source) return false;
        return !pending_refused(record);
    }
};

// ---- From a record -------------------------------------------------------------------------------------------

template <class T, direction Way>
inline record_of<T>* walk_from(const call& c, loom_table* table, record_of<T>* from, const filter& wanted,
                               bool same_key) {
    if (!enter_table(c, table)) return nullptr;
    const u16 tenant = current_tenant();
    for (record_of<T>* each = step<T, Way>(table, from); each != nullptr; each = step<T, Way>(table, each)) {
        if (each->loom_record.tenant_id != tenant) return nullptr;
        if (same_key && compare_keys<T>(from, each) != 0) return nullptr;
        if (wanted.accepts(each->loom_record)) return hand_out<T>(c, table, each);
    }
    return hand_out_nothing<T>(c, table);
}

template <class T>
record_of<T>* keyed_get_next_internal(loom_handle* handle, u32 domain, loom_table* table, record_of<T>* from,
                                      u32 src, u32 match_src, u32 skip_pending, u32 same_key, u32* err) {
    return walk_from<T, direction::forward>({handle, domain, err}, table, from,
                                            {static_cast<u8>(src), match_src != 0, skip_pending != 0},
                                            same_key != 0);
}
template <class T>
record_of<T>* keyed_get_prev_internal(loom_handle* handle, u32 domain, loom_table* table, record_of<T>* from,
                                      u32 src, u32 match_src, u32 skip_pending, u32 same_key, u32* err) {
    return walk_from<T, direction::backward>({handle, domain, err}, table, from,
                                             {static_cast<u8>(src), match_src != 0, skip_pending != 0},
                                             same_key != 0);
}

template <class T>
record_of<T>* keyed_get_next(loom_handle* handle, u32 domain, loom_table* table, record_of<T>* record, u32* err) {
    return T::get_next_internal(handle, domain, table, record, default_source, 1, 0, 0, err);
}
template <class T>
record_of<T>* keyed_get_prev(loom_handle* handle, u32 domain, loom_table* table, record_of<T>* record, u32* err) {
    return T::get_prev_internal(handle, domain, table, record, default_source, 1, 0, 0, err);
}
template <class T>
record_of<T>* keyed_get_next_by_src(loom_handle* handle, u32 domain, loom_table* table, record_of<T>* record,
                                    u32 src, u32* err) {
    return T::get_next_internal(handle, domain, table, record, src, 1, 0, 0, err);
}
template <class T>
record_of<T>* keyed_get_next_not_pending_destroy(loom_handle* handle, u32 domain, loom_table* table,
                                                 record_of<T>* record, u32 src, u32* err) {
    return T::get_next_internal(handle, domain, table, record, src, 1, 1, 0, err);
}
template <class T>
record_of<T>* keyed_get_prev_not_pending_destroy(loom_handle* handle, u32 domain, loom_table* table,
                                                 record_of<T>* record, u32 src, u32* err) {
    return T::get_prev_internal(handle, domain, table, record, src, 1, 1, 0, err);
}

// ---- From an end ---------------------------------------------------------------------------------------------

/// Lower tenants lie before the current one's records, higher ones behind: those on this side are passed over.
template <class T, direction Way>
inline record_of<T>* walk_from_end(const call& c, loom_table* table, const filter& wanted) {
    if (!enter_table(c, table)) return nullptr;
    const u16 tenant = current_tenant();
    const auto on_this_side = [tenant](const loom_table_record& record) {
        return Way == direction::forward ? record.tenant_id < tenant : record.tenant_id > tenant;
    };
    const auto source_accepted = [&wanted](u8 src) {
        if (wanted.match_src) return src == wanted.src;
        return wanted.src != 0 || src < shadow_source;
    };
    e_avl_node* end =
        Way == direction::forward ? e_avl_get_first(table->avl_root) : e_avl_get_last(table->avl_root);
    record_of<T>* each = record_of_node<T>(end);
    while (each != nullptr && (on_this_side(each->loom_record) || wanted.pending_refused(each->loom_record) ||
                               !source_accepted(each->loom_record.src)))
        each = step<T, Way>(table, each);
    if (each == nullptr || each->loom_record.tenant_id != tenant) return hand_out_nothing<T>(c, table);
    return hand_out<T>(c, table, each);
}

template <class T>
record_of<T>* get_first_internal(loom_handle* handle, u32 domain, loom_table* table, u32 src, u32 match_src,
                                 u32 skip_pending, u32* err) {
    return walk_from_end<T, direction::forward>({handle, domain, err}, table,
                                                {static_cast<u8>(src), match_src != 0, skip_pending != 0});
}
template <class T>
record_of<T>* get_last_internal(loom_handle* handle, u32 domain, loom_table* table, u32 src, u32 match_src,
                                u32 skip_pending, u32* err) {
    return walk_from_end<T, direction::backward>({handle, domain, err}, table,
                                                 {static_cast<u8>(src), match_src != 0, skip_pending != 0});
}

template <class T>
record_of<T>* keyed_get_first(loom_handle* handle, u32 domain, loom_table* table, u32* err) {
    return T::get_first_internal(handle, domain, table, default_source, 1, 0, err);
}
template <class T>
record_of<T>* keyed_get_last(loom_handle* handle, u32 domain, loom_table* table, u32* err) {
    return T::get_last_internal(handle, domain, table, default_source, 1, 0, err);
}
template <class T>
record_of<T>* keyed_get_first_by_src(loom_handle* handle, u32 domain, loom_table* table, u32 src, u32* err) {
    return T::get_first_internal(handle, domain, table, src, 1, 0, err);
}
/// Source 0 takes every source but shadows here, and exactly source 0 in the form that takes the last record.
template <class T>
record_of<T>* keyed_get_first_not_pending_destroy(loom_handle* handle, u32 domain, loom_table* table, u32 src,
                                                  u32* err) {
    return T::get_first_internal(handle, domain, table, src, static_cast<u8>(src) != 0 ? 1 : 0, 1, err);
}
template <class T>
record_of<T>* keyed_get_last_not_pending_destroy(loom_handle* handle, u32 domain, loom_table* table, u32 src,
                                                 u32* err) {
    return T::get_last_internal(handle, domain, table, src, 1, 1, err);
}

/// Operations and flags of get_cr.
constexpr u32 get_first = 0, get_last = 1, get_previous = 2, get_following = 3;
constexpr u32 get_any_source = 1, get_with_pending = 2;

template <class T>
record_of<T>* keyed_get_cr(loom_handle* handle, loom_table* table, u32 op, record_of<T>* record, u32 src_word,
                           u32 flags) {
    const call c = chain_call(handle);
    const u32 src = static_cast<u8>(src_word) == 0 ? default_source : static_cast<u8>(src_word);
    const u32 match_src = (flags & get_any_source) != 0 ? 0 : 1;
    const u32 skip_pending = (flags & get_with_pending) != 0 ? 0 : 1;
    switch (op) {
    case get_first: return T::get_first_internal(handle, c.domain, table, src, match_src, skip_pending, c.error);
    case get_last: return T::get_last_internal(handle, c.domain, table, src, match_src, skip_pending, c.error);
    case get_previous:
        return T::get_prev_internal(handle, c.domain, table, record, src, match_src, skip_pending, 0, c.error);
    case get_following:
        return T::get_next_internal(handle, c.domain, table, record, src, match_src, skip_pending, 0, c.error);
    default:
        say<T, says::get_cr_invalid_flag>(op);
        loom_store_err(handle, LOOM_EINVAL);
        return nullptr;
    }
}

// ---- Past a key ----------------------------------------------------------------------------------------------

/// The record behind (or before) a key: from the key's own record when there is one, else the nearest.
template <class T, direction Way>
inline record_of<T>* past_key(const call& c, loom_table* table, const key_value<T>* key, u32 src, u32 walk_src,
                              u32 skip_pending) {
    constexpr u32 forward = Way == direction::forward ? 1 : 0;
    record_of<T>* at =
        T::search_internal(c.handle, c.domain, table, key, 0, forward, src, 0, skip_pending, 0, c.error);
    if (c.pending()) return nullptr;
    if (at == nullptr)
        return T::search_internal(c.handle, c.domain, table, key, 1, forward, src, walk_src, skip_pending, 0,
                                  c.error);
    walk_src = static_cast<u8>(walk_src);
    const u32 match_src = walk_src != 0 ? 1 : 0;
    if constexpr (Way == direction::forward)
        return T::get_next_internal(c.handle, c.domain, table, at, walk_src, match_src, skip_pending, 0, c.error);
    else
        return T::get_prev_internal(c.handle, c.domain, table, at, walk_src, match_src, skip_pending, 0, c.error);
}

template <class T>
record_of<T>* keyed_get_next_by_key(loom_handle* handle, u32 domain, loom_table* table, const key_value<T>* key,
                                    u32* err) {
    return past_key<T, direction::forward>({handle, domain, err}, table, key, default_source, default_source, 0);
}
template <class T>
record_of<T>* keyed_get_prev_by_key(loom_handle* handle, u32 domain, loom_table* table, const key_value<T>* key,
                                    u32* err) {
    return past_key<T, direction::backward>({handle, domain, err}, table, key, default_source, default_source, 0);
}
template <class T>
record_of<T>* keyed_get_next_by_key_w_src(loom_handle* handle, u32 domain, loom_table* table,
                                          const key_value<T>* key, u32 src, u32* err) {
    return past_key<T, direction::forward>({handle, domain, err}, table, key, src, src, 0);
}
template <class T>
record_of<T>* keyed_get_next_by_key_not_pending_destroy(loom_handle* handle, u32 domain, loom_table* table,
                                                        const key_value<T>* key, u32 src, u32 walk_src, u32* err) {
    return past_key<T, direction::forward>({handle, domain, err}, table, key, src, walk_src, 1);
}
template <class T>
record_of<T>* keyed_get_prev_by_key_not_pending_destroy(loom_handle* handle, u32 domain, loom_table* table,
                                                        const key_value<T>* key, u32 src, u32 walk_src, u32* err) {
    return past_key<T, direction::backward>({handle, domain, err}, table, key, src, walk_src, 1);
}
template <class T>
record_of<T>* get_next_by_key(loom_handle* handle, u32 domain, loom_table* table, const key_object<T>* key,
                              u32* err) {
    return keyed_get_next_by_key<T>(handle, domain, table, key_in_object<T>(key), err);
}
template <class T>
record_of<T>* get_prev_by_key(loom_handle* handle, u32 domain, loom_table* table, const key_object<T>* key,
                              u32* err) {
    return keyed_get_prev_by_key<T>(handle, domain, table, key_in_object<T>(key), err);
}
template <class T>
record_of<T>* get_next_by_key_w_src(loom_handle* handle, u32 domain, loom_table* table, const key_object<T>* key,
                                    u32 src, u32* err) {
    return keyed_get_next_by_key_w_src<T>(handle, domain, table, key_in_object<T>(key), src, err);
}

// ---- All records ---------------------------------------------------------------------------------------------

template <class T>
using visitor = i32 (*)(record_of<T>* record, void* user);

/// What the tree hands back at each node.
template <class T>
struct visit {
    visitor<T> callback;
    void* user;
};

template <class T>
i32 keyed_avl_internal_walk(e_avl_node* node, void* context) {
    const auto* each = static_cast<const visit<T>*>(context);
    return each->callback(record_of_node<T>(node), each->user);
}

/// False when there is no table.
template <class T>
inline bool walk_all(loom_table* table, visitor<T> callback, void* user) {
    if (table == nullptr) return false;
    visit<T> each{callback, user};
    e_avl_walk(table->avl_root, T::avl_internal_walk, &each);
    return true;
}

template <class T>
void keyed_walk(loom_table* table, visitor<T> callback, void* user, u32* err) {
    if (*err == 0 && !walk_all<T>(table, callback, user)) *err = LOOM_ENOENT;
}

template <class T>
void record_walk_cr(loom_handle* handle, loom_table* table, u32 key_index, visitor<T> callback, void* user) {
    if (key_index != 0)
        say<T, says::record_walk_cr_unknown_key>(key_index);
    else if (handle->last_error == 0 && !walk_all<T>(table, callback, user))
        loom_store_err(handle, LOOM_ENOENT);
}

template <class T>
void keyed_unordered_traversal() {}

} // namespace trellis::table
