// The order of a table's tree and the search by key. The search record lies on the stack and never enters the
// tree; nothing is allocated. Walking on from a record stands in walk.h.
#pragma once

#include "tables/table_model.h"

#include <type_traits>

namespace trellis::table {

// ---- Order ---------------------------------------------------------------------------------------------------

/// Above 0: a sorts after b. A missing key sorts first.
template <class T>
inline i32 compare_keys(const record_of<T>* a, const record_of<T>* b) {
    const key_cell<T>* left = key_in<T>(a);
    const key_cell<T>* right = key_in<T>(b);
    if constexpr (T::key::type::category == value_category::scalar) {
        if (left == nullptr || right == nullptr) return static_cast<i32>(left != nullptr) - (right != nullptr);
        return *left > *right ? 1 : *left < *right ? -1 : 0;
    } else {
        return T::key::type::compare(left, right);
    }
}

/// Results of a tree's compare.
constexpr i32 sorts_before = 0, sorts_equal = 1, sorts_after = 2;

/// Tenant, then key, then source.
template <class T>
i32 keyed_avl_compare(const e_avl_node* a, const e_avl_node* b) {
    if (a == nullptr || b == nullptr) return a == b ? sorts_equal : a == nullptr ? sorts_before : sorts_after;
    const record_of<T>* left = record_of_node<T>(a);
    const record_of<T>* right = record_of_node<T>(b);
    const loom_table_record& x = left->loom_record;
    const loom_table_record& y = right->loom_record;
    if (x.tenant_id != y.tenant_id) return x.tenant_id > y.tenant_id ? sorts_after : sorts_before;
    const i32 order = compare_keys<T>(left, right);
    if (order != 0) return order > 0 ? sorts_after : sorts_before;
    if (x.src != y.src) return x.src > y.src ? sorts_after : sorts_before;
    return sorts_equal;
}

// ---- Handing out ---------------------------------------------------------------------------------------------

/// A record that a reader gets: shown to the replication cache unless it is a shadow, and reported.
template <class T>
inline record_of<T>* hand_out(const call& c, loom_table* table, record_of<T>* record) {
    if (record->loom_record.src < shadow_source)
        loomrepl_add_to_cache(c.handle, c.domain, table, &record->loom_record, c.error);
    report(c, subject::record, record, table);
    return record;
}
template <class T>
inline record_of<T>* hand_out_nothing(const call& c, loom_table* table) {
    report(c, subject::record, nullptr, table);
    return nullptr;
}

// ---- Search record -------------------------------------------------------------------------------------------

/// A record with a tenant, a source and a key, for the tree to compare with. Of a payload only the key is ever
/// read, and only the key is set.
template <class T>
class search_record {
  public:
    search_record(u16 tenant, u8 src, const key_value<T>* key) {
        record_.loom_record.tenant_id = tenant;
        record_.loom_record.src = src;
        if constexpr (has_key_object<T>)
            record_.*T::key_field = const_cast<key_value<T>*>(key);
        else if constexpr (has_key_attribute<T>)
            place(*key);
        else
            record_.*T::payload_field = const_cast<key_value<T>*>(key);
    }

    record_of<T>* get() { return &record_; }
    e_avl_node* node() { return &record_.loom_record.avl_node; }

  private:
    struct no_room {};
    union payload_room {
        payload_room() {} // left as it is: see above
        payload_of<T> payload;
    };

    void place(const key_value<T>& key) {
        payload_of<T>* payload = &room_.payload;
        using type = typename T::key::type;
        if constexpr (is_any_enumeration(type::category)) {
            memset(&(payload->*T::key::member), 0, sizeof(key_cell<T>));
            (payload->*T::key::member).value = type::map_to_user_value(key);
        } else {
            payload->*T::key::member = key;
        }
        record_.*T::payload_field = payload;
    }

    record_of<T> record_{};
    [[no_unique_address]] std::conditional_t<has_key_attribute<T>, payload_room, no_room> room_;
};

// ---- Search --------------------------------------------------------------------------------------------------

template <class T>
record_of<T>* keyed_search_internal(loom_handle* handle, u32 domain, loom_table* table, const key_value<T>* key,
                                    u32 nearest, u32 forward, u32 src_word, u32 walk_src_word, u32 skip_pending,
                                    u32 strict, u32* err) {
    const call c{handle, domain, err};
    if (!enter_table(c, table)) return nullptr;
    if (key == nullptr) {
        c.fail(LOOM_ENOENT);
        return nullptr;
    }
    const u8 src = static_cast<u8>(src_word);
    const u8 walk_src = static_cast<u8>(walk_src_word);
    search_record<T> wanted(current_tenant(), src == 0 ? default_source : src, key);
    record_of<T>* hit = record_of_node<T>(e_avl_search(table->avl_root, wanted.node(), T::compare));
    if (hit != nullptr && (skip_pending == 0 || (hit->loom_record.record_flags & REC_PENDING_DESTROY) == 0))
        return hand_out<T>(c, table, hit);
    if (nearest == 0 && strict == 0) return hand_out_nothing<T>(c, table);

    const u32 match_src = walk_src != 0 ? 1 : 0;
    const u32 same_key = strict != 0 && nearest == 0 ? 1 : 0;
    record_of<T>* next = forward != 0 ? T::get_next_internal(handle, domain, table, wanted.get(), walk_src,
                                                             match_src, skip_pending, same_key, err)
                                      : T::get_prev_internal(handle, domain, table, wanted.get(), walk_src,
                                                             match_src, skip_pending, same_key, err);
    // The walker has handed it out already; a second time belongs to the search.
    return next == nullptr ? hand_out_nothing<T>(c, table) : hand_out<T>(c, table, next);
}

template <class T>
record_of<T>* keyed_search(loom_handle* handle, u32 domain, loom_table* table, const key_value<T>* key, u32* err) {
    return T::search_internal(handle, domain, table, key, 0, 1, default_source, 0, 0, 0, err);
}

template <class T>
record_of<T>* keyed_search_w_src(loom_handle* handle, u32 domain, loom_table* table, const key_value<T>* key,
                                 u32 src, u32* err) {
    return T::search_internal(handle, domain, table, key, 0, 1, src, 0, 0, 0, err);
}

template <class T>
record_of<T>* keyed_search_nearest(loom_handle* handle, u32 domain, loom_table* table, const key_value<T>* key,
                                   u32* err) {
    return T::search_internal(handle, domain, table, key, 1, 1, default_source, default_source, 0, 0, err);
}

template <class T>
record_of<T>* keyed_search_not_pending_destroy(loom_handle* handle, u32 domain, loom_table* table,
                                               const key_value<T>* key, u32 src, u32 nearest, u32* err) {
    const u32 strict = static_cast<u8>(src) == 0 ? 1 : 0;
    record_of<T>* found = T::search_internal(handle, domain, table, key, nearest, 1, src, src, 1, strict, err);
    return *err == 0 ? found : nullptr;
}

/// Flags of search_cr.
constexpr u32 search_nearest = 1, search_with_pending = 2, search_strict = 4;

template <class T>
record_of<T>* keyed_search_cr(loom_handle* handle, loom_table* table, const key_value<T>* key, u32 src_word,
                              u32 flags) {
    const u32 strict = (flags & search_strict) != 0 ? 1 : 0;
    u8 src = static_cast<u8>(src_word);
    if (src == 0 && strict == 0) src = default_source;
    record_of<T>* found =
        T::search_internal(handle, handle->cr_domain, table, key, flags & search_nearest, 1, src, src,
                           (flags & search_with_pending) != 0 ? 0 : 1, strict, &handle->last_error);
    return handle->last_error == 0 ? found : nullptr;
}

template <class T>
record_of<T>* search(loom_handle* handle, u32 domain, loom_table* table, const key_object<T>* key, u32 nearest,
                     u32* err) {
    return T::search_internal(handle, domain, table, key_in_object<T>(key), nearest, 1, default_source,
                              default_source, 0, 0, err);
}

template <class T>
record_of<T>* search_w_src(loom_handle* handle, u32 domain, loom_table* table, const key_object<T>* key,
                           u32 nearest, u32 src, u32* err) {
    return T::search_internal(handle, domain, table, key_in_object<T>(key), nearest, 1, src, src, 0, 0, err);
}

} // namespace trellis::table
