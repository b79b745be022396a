// Object references: the by-reference accessors of oid attributes, and what a record tells destroy about the
// references it holds. The counting itself is the runtime's.
#pragma once

#include "instance/object_access.h"

#include <loom/oid.h>

#include <stdio.h>

extern "C" void loom_explain_err(loom_handle* handle, uint32_t number, const char* text) __attribute__((weak));

namespace trellis {

namespace accessor {

using says = diag::record_says;

inline const char* error_text(u32 number) { return strerror(static_cast<int>(number)); }

template <class A>
void* get_by_ref(loom_handle* handle, u32 domain, holder_of<A>* object, u32* err) {
    const call c{handle, domain, err};
    if (!c.enter() || !reach<A>(c, object)) return nullptr;
    const loom_oid* oid = oid_of<A>(object);
    if (loom_oid_id_is_zero(oid->id) != 0) return nullptr; // an empty reference is a normal state
    if (target_word_of<A>(object) != resident_type_info<typename A::model::bundle>(c, A::target())) {
        c.fail(LOOM_EINVAL);
        return nullptr;
    }
    void* referenced = loom_oid_to_handle(handle, domain, oid, err);
    c.report_containment(referenced, object);
    return referenced;
}

template <class A>
void* get_by_ref_cr(loom_handle* handle, holder_of<A>* object) {
    return get_by_ref<A>(handle, handle->cr_domain, object, &handle->last_error);
}

/// Traces an old reference without a mapping; the texts are made only for a level that is on.
template <class A>
[[gnu::noinline]] void trace_missing_mapping(loom_handle* handle, const loom_oid* oid) {
    if (spoor_module_test(A::model::bundle::trace_module(), diag::information) == 0) return;
    char id[33] = {};
    char source[33] = {};
    u32 error = 0;
    loomlib_oid_id_print(handle, LOOM_DOMAIN_NONE, oid->id, id, sizeof id, &error);
    loomlib_oid_src_print(handle, LOOM_DOMAIN_NONE, oid->source, source, sizeof source, &error);
    say_of<A, says::attribute_set_by_ref_no_old_mapping>(static_cast<const char*>(id),
                                                         static_cast<const char*>(source));
}

/// A raw oid: no reference is counted or released, nothing is marked.
template <class A>
inline void set_raw_reference(const call& c, holder_of<A>* object, void* target) {
    loom_oid* oid = oid_of<A>(object);
    c.announce(oid, sizeof *oid, object);
    loom_oid made{};
    loom_handle_to_oid(&made, c.handle, c.domain, target, 2, 0, c.error);
    *oid = made;
    c.report_containment(target, object);
}

template <class A>
inline void clear_reference(const call& c, holder_of<A>* object) {
    loom_oid* oid = oid_of<A>(object);
    if (loom_oid_id_is_zero(oid->id) == 0) {
        loom_oid_mapping* mapping = loomlib_oid_id_mapping_get(c.handle, c.domain, oid, c.error);
        if (c.pending()) {
            say_of<A, says::attribute_set_by_ref_old_id_unresolved>(error_text(*c.error));
            return;
        }
        if (mapping == nullptr) {
            trace_missing_mapping<A>(c.handle, oid);
        } else {
            loomlib_update_oid_ref_count(c.handle, c.domain, mapping, 0, c.error);
            if (c.pending()) {
                say_of<A, says::attribute_set_by_ref_old_not_dropped>(error_text(*c.error));
                return;
            }
        }
    }
    c.store<loom_oid>(oid, loom_oid{}, object);
}

/// Drops the reference that the attribute holds. False when the old one cannot be dropped.
template <class A>
inline bool drop_old_reference(const call& c, const loom_oid* oid) {
    if (loom_oid_id_is_zero(oid->id) != 0) return true;
    loom_oid_mapping* mapping = loomlib_oid_id_mapping_get(c.handle, c.domain, oid, c.error);
    if (c.pending()) {
        say_of<A, says::attribute_set_by_ref_old_mapping_unreadable>(error_text(*c.error));
        return false;
    }
    if (mapping == nullptr) {
        say_of<A, says::attribute_set_by_ref_no_old_entry>();
        return true;
    }
    loomlib_update_oid_ref_count(c.handle, c.domain, mapping, 0, c.error);
    if (!c.pending()) return true;
    say_of<A, says::attribute_set_by_ref_old_count_not_updated>(error_text(*c.error));
    return false;
}

/// A target that is no table of the attribute's type: nothing is traced, but the runtime may keep words for it.
[[gnu::noinline]] inline void refuse_target(const call& c, const char* type, const char* attribute,
                                            const char* table) {
    c.fail(LOOM_EINVAL);
    if (loom_explain_err == nullptr) return;
    char text[256];
    snprintf(text, sizeof text,
             "%s.%s refers to a table %s: the target is none (a record of the table is none either)", type,
             attribute, table);
    loom_explain_err(c.handle, LOOM_EINVAL, text);
}

template <class A>
inline void set_counted_reference(const call& c, holder_of<A>* object, void* target) {
    if (loom_get_manifested_type_info(target) != target_word_of<A>(object))
        return refuse_target(c, A::model::name, A::name, A::target()->name);
    if (loomlib_validate_object_flags(target, 0, 1) != 0) {
        say_of<A, says::attribute_set_by_ref_target_refused>();
        c.fail(LOOM_EPERM);
        return;
    }
    loom_oid* oid = oid_of<A>(object);
    if (!drop_old_reference<A>(c, oid)) return;
    c.announce(oid, sizeof *oid, object);
    loom_oid made{};
    loom_handle_to_oid(&made, c.handle, c.domain, target, 2, 1, c.error);
    *oid = made; // also after a failure
    if (c.pending()) {
        say_of<A, says::attribute_set_by_ref_oid_not_made>(error_text(*c.error));
        return;
    }
    c.report_containment(target, object);
    mark<A, says::attribute_set_by_ref_corrupted_handle, says::attribute_set_by_ref_not_tracked>(c, object);
}

template <class A>
void set_by_ref(loom_handle* handle, u32 domain, holder_of<A>* object, void* target, u32* err) {
    const call c{handle, domain, err};
    if (!enter_write<A>(c, object)) return;
    if (target == LOOM_OID_RAW_TARGET)
        set_raw_reference<A>(c, object, target);
    else if (target == nullptr)
        clear_reference<A>(c, object);
    else
        set_counted_reference<A>(c, object, target);
}

template <class A>
u32 set_by_ref_cr(loom_handle* handle, holder_of<A>* object, void* target) {
    set_by_ref<A>(handle, handle->cr_domain, object, target, &handle->last_error);
    return handle->last_error;
}

} // namespace accessor

namespace record {

/// The record's own oid attributes; those of nested records are not added.
template <class M>
constexpr u32 own_oid_count = [] {
    u32 count = 0;
    for_each_attribute(typename M::attributes{}, [&]<class A>() { count += is_reference<A> ? 1u : 0u; });
    return count;
}();

template <class M>
u32 get_oid_count(loom_handle* handle, u32 domain, const typename M::object* object, u32* err) {
    const call c{handle, domain, err};
    if (c.pending()) {
        diag::say<M, says::get_oid_count_error_pending>();
        return 0;
    }
    if (object == nullptr) {
        diag::say<M, says::get_oid_count_null_object>();
        c.fail(LOOM_EINVAL);
        return 0;
    }
    return own_oid_count<M>;
}

template <class M>
void get_object_references(loom_handle* handle, u32 domain, const typename M::object* object, void** references,
                           [[maybe_unused]] u32 count, u32* err) {
    const call c{handle, domain, err};
    if (c.pending()) {
        diag::say<M, says::get_object_references_error_pending>();
        return;
    }
    if (object == nullptr) {
        diag::say<M, says::get_object_references_null_object>();
        c.fail(LOOM_EINVAL);
        return;
    }
    [[maybe_unused]] u32 position = 0;
    all_attributes(typename M::attributes{}, [&]<class A>() {
        if constexpr (is_reference<A>) {
            const loom_oid* oid = oid_of<A>(object);
            void* reference = nullptr;
            if (refers(*oid)) {
                reference = loom_oid_to_handle(handle, domain, oid, err);
                if (c.pending()) {
                    say_of<A, says::get_object_references_reference_unresolved>();
                    return false;
                }
            }
            references[position++] = reference;
        }
        return true;
    });
}

/// Clears the oids of an object, and of the records inside it if `inside` is set: others account for the
/// references that they stood for.
template <class M>
void forget_references(loom_handle* handle, u32 domain, typename M::object* object, bool inside) {
    u32 unused = 0;
    const call c{handle, domain, &unused};
    for_each_attribute(typename M::attributes{}, [&]<class A>() {
        if (!has_room_for<A>(object)) return;
        if constexpr (is_reference<A>) {
            if (refers(*oid_of<A>(object))) c.store<loom_oid>(oid_of<A>(object), loom_oid{}, object);
        } else if constexpr (nests_records<A>) {
            for (u32 i = 0; inside && i < values_in_place<A>; ++i)
                A::type::forget_references(handle, domain, cell_of<A>(object) + i, true);
        }
    });
}

} // namespace record
} // namespace trellis
