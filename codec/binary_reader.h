// How bytes become a record: the form is told in binary_writer.h. The reader fills a live instance up to the
// variant that the bytes hold and the instance's layout can take, and skips the rest by the jump, which only ever
// moves forward. It never reads behind the buffer; where the form lets the position run beyond it, nothing is
// taken.
#pragma once

#include "codec/binary_writer.h"
#include "instance/lists.h"
#include "instance/repeated.h"

namespace trellis::codec {

/// What becomes of the state bytes on the wire.
enum class state_bytes : u8 { absent, taken, skipped };

/// How reading goes on behind an attribute.
enum class next_step : u8 {
    next_attribute,
    end_of_fields, // the rest of the fields is left alone
    give_up,       // the operation ends at once with result 0
};

/// Stores a state byte; out of line, which keeps the path without them short.
[[gnu::noinline]] inline void store_state(loom_handle* handle, u32 domain, u8* flag, u8 state) {
    handle->write_hook(handle, flag, 1, domain, nullptr);
    *flag = state;
}

/// Cursor in the input.
struct reader {
    call c;
    const u8* buffer;
    u32 position;
    i32 length;
    u32 existing; // not 0: the instance is in use and its arrays and lists are replaced
    bool tracked; // tracking is on, so that elements have tracking areas
    state_bytes states;
    u8* area;              // the instance's tracking area, null with tracking off
    bool run_fits = false; // on the straight path: the run of fixed forms at the cursor is read without calls

    const u8* at() const { return buffer + position; }
    i32 room() const { return length - static_cast<i32>(position); }
    bool holds(u64 size) const { return static_cast<i64>(size) <= room(); }
    /// Moves on by what an operation has read. Jumps may lead far behind the buffer's end, one after the other:
    /// the position stops at the largest that its signed form can tell.
    void advance(u32 size) {
        const u32 moved = position + size;
        position = static_cast<i32>(moved) >= 0 ? moved : u32{INT32_MAX};
    }
    u32 fitting(u32 count) const {
        const i32 left = room();
        return left <= 0 ? 0 : static_cast<u32>(left) < count ? static_cast<u32>(left) : count;
    }

    /// Values of fixed form that are known to be there.
    template <class T>
    [[gnu::always_inline]] void take(T* values, u32 count) {
        load_form(at(), values, count);
        position += count * static_cast<u32>(sizeof(T));
    }
    template <class T, class Operation>
    [[gnu::always_inline]] void frame_field(T* v, Operation* operation) {
        if (direct::offered && holds(sizeof *v) && !c.pending())
            take(v, 1);
        else
            position += operation(c.handle, c.domain, at(), v, room(), c.error);
    }
    /// A counted text for a value that has a block of its length, or none; false, and nothing is taken, in any
    /// other case.
    template <class T>
    [[gnu::always_inline]] bool take_counted(T* v) {
        u32 count;
        if (!holds(sizeof count) || c.pending()) return false;
        load_form(at(), &count, 1);
        if (!holds(sizeof count + u64{count}) || count == 0) return false;
        auto*& block = direct::bytes_of(*v);
        if (block == nullptr) {
            auto* made = static_cast<std::remove_reference_t<decltype(block)>>(
                c.allocate(size_t{count} + direct::terminator_size<T>));
            if (made == nullptr) {
                c.fail(LOOM_ENOMEM);
                return true;
            }
            if constexpr (direct::terminator_size<T> != 0) made[count] = 0;
            block = made;
            v->length = count;
        } else if (v->length != count) {
            return false;
        }
        memcpy(block, at() + sizeof count, count);
        position += static_cast<u32>(sizeof count) + count;
        return true;
    }
    [[gnu::always_inline]] void begin_run(u32 size) { run_fits = holds(size) && !c.pending(); }
    /// Neighbours of one scalar type.
    template <class Type>
    [[gnu::always_inline]] void scalars(typename Type::c_type* v, u32 count) {
        if (direct::is_unwatched(c.handle) && holds(u64{count} * sizeof *v) && !c.pending())
            take(v, count);
        else
            for (u32 i = 0; i < count; ++i)
                value<Type>(v + i);
    }
    template <class Type>
    [[gnu::always_inline]] void value(typename Type::c_type* v) {
        const u32 size = Type::unmarshal(c.handle, c.domain, at(), v, room(), existing, c.error);
        if constexpr (has_header(Type::category))
            advance(size);
        else
            position += size;
    }

    /// A value on the straight path: a part of the bundle and a counted text come in in place.
    template <class Type>
    [[gnu::always_inline]] void straight_value(typename Type::c_type* v) {
        if constexpr (has_part_model<Type>) {
            using part = typename Type::model;
            if (holds(part_size<part>) && !c.pending() && take_part<part>(at(), v)) {
                position += part_size<part>;
                return;
            }
        }
        if constexpr (is_counted_value<typename Type::c_type>)
            if (take_counted(v)) return;
        if constexpr (Type::category == value_category::record && !has_part_model<Type>) {
            if (holds(wire::record_frame_size) && !c.pending() &&
                (at()[wire::flags_place] & LOOM_WIRE_FLAGS) == 0) {
                advance(Type::unmarshal_straight(c.handle, c.domain, at(), v, room(), existing, c.error));
                return;
            }
        }
        value<Type>(v);
    }

    [[gnu::always_inline]] void scalar_step(u32 track) {
        if (states == state_bytes::absent || room() == 0) return;
        if (states == state_bytes::taken && room() > 0) store_state(c.handle, c.domain, area + track, *at());
        advance(1);
    }
    /// References and lists want two bytes of room, arms only one.
    [[gnu::always_inline]] void guarded_step(u32 track, i32 wanted) {
        if (states == state_bytes::absent || room() < wanted) return;
        if (states == state_bytes::taken) store_state(c.handle, c.domain, area + track, *at());
        ++position;
    }
    [[gnu::always_inline]] void element_states(u8* flags, u32 count) {
        if (states == state_bytes::absent) return;
        const u32 size = fitting(count);
        if (states == state_bytes::taken && flags != nullptr && size != 0) {
            c.announce(flags, size, nullptr);
            memcpy(flags, at(), size);
        }
        position += size;
    }
};

/// The cursor of a value without fields of its own: an enumeration, a flag set.
inline reader compact_reader(const call& c, const void* buffer, i32 length, u32 existing) {
    return {c, static_cast<const u8*>(buffer), 0, length, existing, false, state_bytes::absent, nullptr};
}

// ---- Arrays ------------------------------------------------------------------------------------------------

/// Ends the elements of a variable array and gives its block back.
template <class A>
inline void drop_block(const call& c, holder_of<A>* object, u32 count) {
    value_of<A>*& block = pointer_of<A>(object);
    if (block == nullptr) return;
    record::tear_down_elements<A>(c, block, count);
    c.release(block);
    c.store<value_of<A>*>(&block, nullptr, object);
}

/// Provides a zeroed block for `count` elements, the old one when an array in use keeps its count. Without room
/// the array is empty, with error 12.
template <class A>
inline bool provide_block(const reader& r, holder_of<A>* object, u32 old_count, u32 count) {
    const call& c = r.c;
    const size_t size = is_counted_string<A> ? size_t{count} + 1 : block_size<typename A::type>(count, r.tracked);
    value_of<A>*& block = pointer_of<A>(object);
    if (r.existing != 0 && block != nullptr && count == old_count) {
        c.announce(block, size, object); // the end of elements clears some of their bytes in silence
        record::tear_down_elements<A>(c, block, count);
    } else {
        drop_block<A>(c, object, old_count);
        auto* made = static_cast<value_of<A>*>(c.allocate(size));
        if (made == nullptr) {
            store_block<A>(c, object, nullptr, 0);
            c.fail(LOOM_ENOMEM);
            return false;
        }
        c.store<value_of<A>*>(&block, made, object);
    }
    memset(static_cast<void*>(block), 0, size);
    return true;
}

/// The element flags of a tracked array follow its count. With state bytes to come they are zeroed; without, they
/// keep what they have.
template <class A>
inline bool provide_element_flags(const reader& r, holder_of<A>* object, u32 old_count, u32 count) {
    if (!r.tracked) return true;
    u8* flags = element_flags_of<A>(r.area);
    const bool taken = r.states == state_bytes::taken;
    if (flags == nullptr || count != old_count || (taken && r.existing == 0)) {
        const u32 kept = taken ? 0 : count < old_count ? count : old_count;
        return replace_element_flags<A>(r.c, object, count, kept);
    }
    if (taken) {
        r.c.announce(flags, count, nullptr);
        memset(flags, 0, count);
    }
    return true;
}

template <class Type, bool Straight>
[[gnu::always_inline]] inline void read_value(reader& r, typename Type::c_type* v) {
    if constexpr (Straight)
        r.template straight_value<Type>(v);
    else
        r.template value<Type>(v);
}

/// A variable array or counted string: its count, its elements, its state bytes.
template <class A, bool Straight>
inline next_step read_counted(reader& r, holder_of<A>* object) {
    const call& c = r.c;
    const u32 old_count = static_cast<u32>(count_of<A>(object));
    r.template scalars<typename A::length::type>(field_of<typename A::length>(object), 1);
    if (c.pending()) return next_step::next_attribute; // no count, no elements
    const u32 count = static_cast<u32>(count_of<A>(object));
    if (count == 0) {
        drop_block<A>(c, object, old_count);
        return next_step::next_attribute;
    }
    if (!provide_block<A>(r, object, old_count, count)) return next_step::give_up;
    if constexpr (is_variable_array<A>)
        if (!provide_element_flags<A>(r, object, old_count, count)) return next_step::give_up;

    value_of<A>* block = pointer_of<A>(object);
    if constexpr (is_counted_string<A> || is_byte_array<A>) {
        const u32 size = r.fitting(count);
        if (size != 0) memcpy(block, r.at(), size);
        r.position += size;
    } else if constexpr (has_fixed_form_type<typename A::type>) {
        r.template scalars<typename A::type>(block, count);
    } else {
        // All elements are set up first: those behind an error must be fit to be ended.
        if constexpr (has_header(A::type::category)) {
            const u32 ready = initialize_elements<typename A::type>(c, block, 0, count, r.tracked);
            if (ready != count) { // those without a place for their states could not be ended
                store_block<A>(c, object, block, ready);
                return next_step::give_up;
            }
        }
        for (u32 i = 0; i < count; ++i)
            read_value<typename A::type, Straight>(r, block + i);
    }
    r.scalar_step(A::at.track);
    if constexpr (is_variable_array<A>)
        r.element_states(r.area == nullptr ? nullptr : element_flags_of<A>(r.area), count);
    return next_step::next_attribute;
}

// ---- Lists -------------------------------------------------------------------------------------------------

/// Unlinks every element from the front and ends it.
template <class A>
inline void end_all_elements(const call& c, holder_of<A>* object) {
    using says = diag::record_says;
    loom_list_head* head = list_of<A>(object);
    while (void* element = first_of(head)) {
        loom_list_links* links = links_of(element);
        void* next = links->next;
        accessor::announce_link<A, says::unmarshal_arena_refused, 0>(c, &links->next, 2 * sizeof(void*), element);
        accessor::store_link<A, says::unmarshal_arena_refused, 1>(c, &head->first, next, object);
        if (next == head)
            accessor::store_link<A, says::unmarshal_arena_refused, 2>(c, &head->last, head, object);
        else
            accessor::store_link<A, says::unmarshal_arena_refused, 3>(c, &links_of(next)->previous, head, next);
        A::type::destroy_internal(c.handle, c.domain, static_cast<value_of<A>*>(element), 1);
    }
    c.store<u32>(&head->count, 0, object);
}

/// Reads one element; an error is traced and stops the list.
template <class A>
inline bool read_element(reader& r, value_of<A>* element) {
    r.template value<typename A::type>(element);
    if (!r.c.pending()) return true;
    say_of<A, diag::record_says::unmarshal_element_failed>(
        static_cast<const char*>(strerror(static_cast<int>(*r.c.error))));
    return false;
}

/// Reads `count` new elements and links each at the end.
template <class A>
inline bool append_elements(reader& r, holder_of<A>* object, u32 count) {
    const call& c = r.c;
    if (count != 0) A::model::bundle::trace_init();
    for (u32 i = 0; i < count; ++i) {
        value_of<A>* element = A::type::create_internal(c.handle, c.domain);
        if (element == nullptr) {
            c.fail(LOOM_ENOMEM);
            return false;
        }
        if (!read_element<A>(r, element)) {
            A::type::destroy(c.handle, c.domain, element);
            return false;
        }
        // The instance gets its variant behind the fields, so the list is not asked whether it is within reach.
        loom_list_head* head = list_of<A>(object);
        accessor::settle_empty(c, head, object);
        accessor::link_between<A, accessor::last_statements>(c, object, head->last, head, element, false);
        accessor::finish_link<A>(c, object, element);
    }
    return true;
}

template <class A>
inline next_step read_list(reader& r, holder_of<A>* object) {
    const call& c = r.c;
    u32 count = 0;
    r.frame_field(&count, _loom_list_len_unmarshal);
    if (c.pending()) return next_step::end_of_fields;
    if (r.existing != 0 && list_of<A>(object)->count == count) {
        const bool whole =
            each_element<A>(object, [&](value_of<A>* element) { return read_element<A>(r, element); });
        if (!whole) return next_step::end_of_fields;
    } else {
        if (r.existing != 0) end_all_elements<A>(c, object);
        if (!append_elements<A>(r, object, count)) return next_step::end_of_fields;
    }
    r.guarded_step(A::at.track, 2);
    return next_step::next_attribute;
}

// ---- Arms --------------------------------------------------------------------------------------------------

/// Makes a value for an arm that has none. False with error 12 when there is no room.
template <class A>
[[gnu::noinline]] bool make_arm(call c, holder_of<A>* object) {
    value_of<A>*& arm = pointer_of<A>(object);
    if constexpr (A::type::category != value_category::record) umber_set_callsite_tag(A::at.trace);
    c.announce(&arm, sizeof arm, object);
    arm = A::type::create(c.handle, c.domain);
    c.report_containment(arm, object);
    if (arm != nullptr) return true;
    c.fail(LOOM_ENOMEM);
    return false;
}

/// Arms that are not selected keep what they hold.
template <class A, bool Straight>
[[gnu::always_inline]] inline next_step read_arm(reader& r, holder_of<A>* object) {
    if (is_selected<A>(object) && (pointer_of<A>(object) != nullptr || make_arm<A>(r.c, object)))
        read_value<typename A::type, Straight>(r, pointer_of<A>(object));
    r.guarded_step(A::at.track, 1);
    return r.c.pending() ? next_step::end_of_fields : next_step::next_attribute;
}

// ---- Attributes --------------------------------------------------------------------------------------------

/// Runs a long step on a copy of the cursor: only the copy's address leaves the caller, whose own cursor stays in
/// registers.
template <class Object>
[[gnu::always_inline]] inline next_step apart(reader& r, Object* object, next_step (*step)(reader&, Object*)) {
    // Member by member: a copy in one piece would wait for the members' stores.
    reader copy{{r.c.handle, r.c.domain, r.c.error},
                r.buffer,
                r.position,
                r.length,
                r.existing,
                r.tracked,
                r.states,
                r.area};
    const next_step then = step(copy, object);
    r.position = copy.position;
    return then;
}

template <class A, bool Straight = false>
[[gnu::always_inline]] inline next_step read(reader& r, holder_of<A>* object) {
    using type = typename A::type;
    if constexpr (is_length<A>) {
        // stands in front of its array
    } else if constexpr (is_plain<A> || is_object<A>) {
        read_value<type, Straight>(r, field_of<A>(object));
        r.scalar_step(A::at.track);
        if constexpr (is_discriminator<A>)
            if (r.c.pending()) return next_step::end_of_fields;
    } else if constexpr (is_fixed_array<A>) {
        for (u32 i = 0; i < A::extent; ++i)
            read_value<type, Straight>(r, field_of<A>(object) + i);
        r.scalar_step(A::at.track);
        r.element_states(r.area == nullptr ? nullptr : r.area + A::track_elements, A::extent);
    } else if constexpr (is_fixed_string<A>) {
        for (u32 i = 0; i < A::extent; ++i)
            read_value<type, Straight>(r, field_of<A>(object) + i);
        r.scalar_step(A::at.track);
    } else if constexpr (is_variable_array<A> || is_counted_string<A>) {
        return apart(r, object, &read_counted<A, Straight>);
    } else if constexpr (is_oid<A>) {
        r.position += loomlib_oid_unmarshal(r.c.handle, r.c.domain, r.at(), oid_of<A>(object), r.room(),
                                            r.existing, r.c.error);
        r.guarded_step(A::at.track, 2);
    } else if constexpr (is_arm<A>) {
        return read_arm<A, Straight>(r, object);
    } else {
        static_assert(is_list<A>);
        return apart(r, object, &read_list<A>);
    }
    return next_step::next_attribute;
}

/// The same on the straight path.
template <class A>
[[gnu::always_inline]] inline next_step read_straight(reader& r, holder_of<A>* object) {
    if constexpr (run_begun_by<A> != 0) r.begin_run(run_begun_by<A>);
    if constexpr (has_fixed_form<A>)
        if (r.run_fits) {
            r.take(field_of<A>(object), values_in_form<A>);
            return next_step::next_attribute;
        }
    return read<A, true>(r, object);
}

// ---- Frame -------------------------------------------------------------------------------------------------

/// Reads the variant, lowered to what the instance's layout can hold.
inline i8 read_variant(reader& r, const loom_object* header) {
    i8 variant = 0;
    r.frame_field(&variant, _loom_instance_variant_unmarshal);
    return variant > header->loom_layout_variant ? static_cast<i8>(header->loom_layout_variant) : variant;
}

/// Reads the flags, and drops an ra data block.
inline u8 read_flags(reader& r) {
    const call& c = r.c;
    u8 flags = 0;
    r.frame_field(&flags, _loom_instance_obj_flag_unmarshal);
    flags &= LOOM_WIRE_FLAGS;
    if ((flags & OBJ_RA_DATA) != 0) {
        u64 address = 0;
        u8 kind = 0;
        r.position +=
            _loom_instance_ra_data_unmarshal(c.handle, c.domain, r.at(), &address, &kind, r.room(), c.error);
    }
    return flags;
}

/// Stores the type information of an instance just read. A database without room for it leaves the old one, with
/// error 12.
template <class Model>
inline void store_type_info(const call& c, loom_type_info** word, const void* owner) {
    c.announce(word, sizeof *word, owner);
    loom_type_info* resident = resident_type_info<typename Model::bundle>(c, Model::type::type_info());
    if (resident != nullptr)
        *word = resident;
    else if (!c.pending())
        c.fail(LOOM_ENOMEM);
}

/// Takes the position to the end that the jump names, if that lies ahead. True when something was skipped.
inline bool jump_ahead(u32* position, u32 base, loom_wire_jump jump) {
    const u32 end = base + static_cast<u32>(jump);
    if (static_cast<i32>(end) <= static_cast<i32>(*position)) return false;
    *position = end;
    return true;
}

/// The plain case of anything with a header: no error, `size` bytes there, nobody who follows stores, and type
/// information that lies in the bundle.
[[gnu::always_inline]] inline bool is_plain_case(const call& c, i32 length, u32 size) {
    return direct::is_unwatched(c.handle) && !c.pending() && length >= static_cast<i32>(size) &&
           c.handle->db_kind == 0;
}
/// That of a record: besides, nothing is tracked, neither here nor on the wire.
[[gnu::always_inline]] inline bool reads_straight(const call& c, const u8* buffer, i32 length) {
    if (!is_plain_case(c, length, wire::record_frame_size) || (buffer[wire::flags_place] & LOOM_WIRE_FLAGS) != 0)
        return false;
    const tracking_mode mode = c.mode();
    return mode == tracking_mode::absent || mode == tracking_mode::off;
}

} // namespace trellis::codec

namespace trellis::record {

/// Worker of unmarshal on the straight path.
template <class M>
[[gnu::always_inline]] inline u32 unmarshal_straight(loom_handle* handle, u32 domain, const u8* buffer,
                                                     typename M::object* object, i32 length, u32 existing,
                                                     u32* err) {
    using says = diag::record_says;
    const call c{handle, domain, err};
    c.clear_last_error();
    loom_object* header = header_of(object);
    const i8 variant = codec::lowered_variant(buffer[0], header);
    loom_wire_jump jump = 0;
    codec::load_form(buffer + wire::record_jump_place, &jump, 1);
    codec::reader r{c,        buffer, wire::record_frame_size,    length,
                    existing, false,  codec::state_bytes::absent, nullptr};

    auto then = codec::next_step::next_attribute;
    if (variant >= 0)
        codec::each_reached<M>(
            variant, [&]<class A>() __attribute__((always_inline)) {
                then = codec::read_straight<A>(r, object);
                return then == codec::next_step::next_attribute;
            });
    if (then == codec::next_step::give_up) return 0;

    const u32 reached = r.position;
    if (codec::jump_ahead(&r.position, wire::record_jump_place, jump))
        diag::say<M, says::unmarshal_jump_skips>(reached, wire::record_jump_place, jump);

    header->loom_variant = variant;
    header->loom_tinfo = M::type::type_info();
    return r.position;
}

template <class M>
u32 unmarshal(loom_handle* handle, u32 domain, const void* buffer, typename M::object* object, i32 length,
              u32 existing, u32* err) {
    using says = diag::record_says;
    const call c{handle, domain, err};
    if (codec::reads_straight(c, static_cast<const u8*>(buffer), length))
        return M::type::unmarshal_straight(handle, domain, static_cast<const u8*>(buffer), object, length,
                                           existing, err);
    if (!codec::enter_with_room(c, length)) return 0;
    loom_object* header = header_of(object);
    codec::reader r{c,     static_cast<const u8*>(buffer), 0,      length, existing,
                    false, codec::state_bytes::absent,     nullptr};
    const i8 variant = codec::read_variant(r, header);
    u8 flags = codec::read_flags(r);

    const u32 base = r.position;
    loom_wire_jump jump = 0;
    r.frame_field(&jump, _loom_variant_jump_unmarshal);

    const bool on_wire = (flags & OBJ_STATE_TRACKED) != 0;
    switch (c.mode()) {
    case tracking_mode::corrupted: diag::die<M, says::unmarshal_corrupted_handle>();
    case tracking_mode::on:
        if (!is_tracked(object)) diag::die<M, says::unmarshal_tracking_mismatch>();
        r.tracked = true;
        r.area = tracking_area<M>(c, object);
        if (on_wire) r.states = codec::state_bytes::taken;
        flags |= OBJ_STATE_TRACKED;
        break;
    default:
        if (on_wire) r.states = codec::state_bytes::skipped;
        flags &= static_cast<u8>(~OBJ_STATE_TRACKED);
    }

    auto then = codec::next_step::next_attribute;
    if (variant >= 0)
        codec::each_reached<M>(
            variant, [&]<class A>() __attribute__((always_inline)) {
                then = codec::read<A>(r, object);
                return then == codec::next_step::next_attribute;
            });
    if (then == codec::next_step::give_up) return 0;

    const u32 reached = r.position;
    if (codec::jump_ahead(&r.position, base, jump)) diag::say<M, says::unmarshal_jump_skips>(reached, base, jump);

    c.store<i8>(&header->loom_variant, variant, nullptr);
    c.store<u8>(&header->loom_flags, static_cast<u8>(header->loom_flags | flags), nullptr);
    codec::store_type_info<M>(c, direct::type_info_word(object), nullptr);
    return r.position;
}

} // namespace trellis::record
