// How a record becomes bytes. The form, from the record's first byte:
//
//     variant     1 byte    how many variants of fields follow; negative: none
//     flags       1 byte    8: the fields carry state bytes; 32: an ra data block follows
//     ra data     9 bytes   only when flagged
//     jump        4 bytes   distance from its own first byte to the end of the record
//     fields                in schema order, which is the order of variants
//
// A value is written by its own type's operation, which tests the room and refuses while an error is pending. The
// frame, the state bytes and raw blocks are written all the same, as far as there is room. A state byte takes one
// of two steps: the scalar step stores at the cursor even at the exact end of the buffer (hence the spare byte
// that callers provide) and stays there; the guarded step, of references, lists and arms, wants two bytes of room.
// Most records are written in the plain case: nothing is tracked, the peer is of this build, no error is pending.
// Where the runtime offers direct forms (<loom/direct.h>) that case has a straight path, which writes the frame
// and runs of plain values without a call; the bytes are the same.
//
// The reader stands in binary_reader.h, the size in binary_length.h.
#pragma once

#include "codec/part_form.h"

#include <loom/wire.h>

namespace trellis::codec {

/// An empty tracking area: what is written for an object without tracking under a handle with it.
template <class Model>
struct blank_area {
    alignas(8) static constexpr u8 bytes[newest_tracking_size<Model> + 1] = {};
};

/// What the straight path asks of a record itself: a variant that this build knows, no ra data.
template <class Type>
[[gnu::always_inline]] inline bool goes_straight(const loom_object* header) {
    return header->loom_variant <= Type::newest && (header->loom_flags & OBJ_RA_DATA) == 0;
}

/// Cursor in the output.
struct writer {
    call c;
    u8* buffer;
    u32 position;
    i32 length;
    bool cut_down; // the instance or a part of it is written in an older form than it has; error 43 is kept aside
    bool run_fits = false; // on the straight path: the run of fixed forms at the cursor is written without calls

    u8* at() const { return buffer + position; }
    i32 room() const { return length - static_cast<i32>(position); }
    bool fits(u64 size) const { return static_cast<i64>(size) <= room(); }

    /// Values of fixed form that are known to fit.
    template <class T>
    [[gnu::always_inline]] void put(const T* values, u32 count) {
        store_form(at(), values, count);
        position += count * static_cast<u32>(sizeof(T));
    }
    /// A counted text in the common case; false, and nothing is written, in any other.
    template <class T>
    [[gnu::always_inline]] bool put_counted(const T* v) {
        if (v == nullptr || c.pending()) return false;
        const u32 count = direct::byte_count_of(*v);
        if (!fits(sizeof count + u64{count})) return false;
        put(&count, 1);
        if (count != 0) memcpy(at(), direct::bytes_of(*v), count);
        position += count;
        return true;
    }
    [[gnu::always_inline]] void begin_run(u32 size) { run_fits = fits(size) && !c.pending(); }

    /// Neighbours of one scalar type.
    template <class Type>
    [[gnu::always_inline]] void scalars(const typename Type::c_type* v, u32 count) {
        if (direct::offered && v != nullptr && fits(u64{count} * sizeof *v) && !c.pending())
            put(v, count);
        else
            for (u32 i = 0; i < count; ++i)
                value<Type>(v + i);
    }
    /// A frame field is written whatever the error word says, as long as there is room.
    template <class T, class Operation>
    [[gnu::always_inline]] void frame_field(T v, Operation* operation) {
        if (direct::offered && fits(sizeof v))
            put(&v, 1);
        else
            position += operation(c.handle, c.domain, at(), &v, room(), c.error);
    }
    template <class Type>
    [[gnu::always_inline]] void value(const typename Type::c_type* v) {
        if constexpr (is_counted_value<typename Type::c_type>)
            if (direct::offered && put_counted(v)) return;
        position += Type::marshal(c.handle, c.domain, at(), v, room(), c.error);
        if constexpr (has_header(Type::category)) keep_aside_epoch_error();
    }

    /// A value on the straight path: a part of the bundle goes out in place.
    template <class Type>
    [[gnu::always_inline]] void straight_value(const typename Type::c_type* v) {
        if constexpr (has_part_model<Type>) {
            using part = typename Type::model;
            if (v != nullptr && fits(part_size<part>) && !c.pending() && put_part<part>(at(), v)) {
                position += part_size<part>;
                return;
            }
        }
        if constexpr (Type::category == value_category::record && !has_part_model<Type>) {
            if (v != nullptr && fits(wire::record_frame_size) && !c.pending() &&
                goes_straight<Type>(header_of(v))) {
                position += Type::marshal_straight(c.handle, c.domain, at(), v, room(), c.error);
                keep_aside_epoch_error();
                return;
            }
        }
        value<Type>(v);
    }
    /// A part that is cut down does not stop what follows.
    [[gnu::always_inline]] void keep_aside_epoch_error() {
        if (*c.error != LOOM_EIDRM) return;
        *c.error = 0;
        cut_down = true;
    }

    [[gnu::always_inline]] void scalar_step(u8 state) {
        *at() = state;
        position += static_cast<i32>(position) != length;
    }
    [[gnu::always_inline]] void guarded_step(u8 state) {
        if (room() < 2) return;
        *at() = state;
        ++position;
    }
    /// `flags` null: none are held, zeros go out.
    [[gnu::always_inline]] void element_states(const u8* flags, u32 count) {
        const u32 fitting = room() <= 0 ? 0 : static_cast<u32>(room()) < count ? static_cast<u32>(room()) : count;
        if (fitting == 0) return;
        if (flags != nullptr)
            memcpy(at(), flags, fitting);
        else
            memset(at(), 0, fitting);
        position += fitting;
    }
    /// A block without a form of its own: what does not fit is left out, with error 90.
    [[gnu::always_inline]] void raw(const void* block, u32 count) {
        u32 fitting = count;
        if (count > static_cast<u32>(room() < 0 ? 0 : room())) {
            c.fail(LOOM_EMSGSIZE);
            fitting = room() < 0 ? 0 : static_cast<u32>(room());
        }
        if (fitting != 0) memcpy(at(), block, fitting);
        position += fitting;
    }
};

template <class Type, bool Straight>
[[gnu::always_inline]] inline void write_value(writer& w, const typename Type::c_type* v) {
    if constexpr (Straight)
        w.template straight_value<Type>(v);
    else
        w.template value<Type>(v);
}

/// Writes one attribute; `area` is the tracking area that the state bytes come from, null for none.
template <class A, bool Straight = false>
[[gnu::always_inline]] inline void write(writer& w, const holder_of<A>* object, const u8* area) {
    using type = typename A::type;
    if constexpr (is_length<A>) {
        // stands in front of its array
    } else if constexpr (is_plain<A> || is_object<A>) {
        write_value<type, Straight>(w, field_of<A>(object));
        if (area != nullptr) w.scalar_step(area[A::at.track]);
    } else if constexpr (is_fixed_array<A>) {
        for (u32 i = 0; i < A::extent; ++i)
            write_value<type, Straight>(w, field_of<A>(object) + i);
        if (area == nullptr) return;
        w.scalar_step(area[A::at.track]);
        w.element_states(area + A::track_elements, A::extent);
    } else if constexpr (is_fixed_string<A>) {
        for (u32 i = 0; i < A::extent; ++i)
            write_value<type, Straight>(w, field_of<A>(object) + i);
        if (area != nullptr) w.scalar_step(area[A::at.track]);
    } else if constexpr (is_variable_array<A> || is_counted_string<A>) {
        w.template scalars<typename A::length::type>(field_of<typename A::length>(object), 1);
        const u32 count = count_of<A>(object);
        if (count == 0) return; // no state bytes either
        const value_of<A>* block = pointer_of<A>(object);
        if constexpr (is_counted_string<A> || is_byte_array<A>) {
            w.raw(block, count);
        } else if constexpr (has_fixed_form_type<type>) {
            w.template scalars<type>(block, count);
        } else {
            for (u32 i = 0; i < count; ++i)
                write_value<type, Straight>(w, block + i);
        }
        if (area == nullptr) return;
        w.scalar_step(area[A::at.track]);
        if constexpr (is_variable_array<A>) w.element_states(element_flags_of<A>(const_cast<u8*>(area)), count);
    } else if constexpr (is_oid<A>) {
        w.position += loomlib_oid_marshal(w.c.handle, w.c.domain, w.at(), oid_of<A>(object), w.room(), w.c.error);
        if (area != nullptr) w.guarded_step(area[A::at.track]);
    } else if constexpr (is_arm<A>) {
        if (is_selected<A>(object)) {
            const value_of<A>* arm = pointer_of<A>(object);
            if (arm != nullptr)
                write_value<type, Straight>(w, arm);
            else
                w.c.fail(LOOM_ENOENT);
        }
        if (area != nullptr) w.guarded_step(area[A::at.track]);
    } else {
        static_assert(is_list<A>);
        w.frame_field(list_of<A>(object)->count, _loom_list_len_marshal);
        each_element<A>(object, [&](const value_of<A>* element) {
            write_value<type, Straight>(w, element);
            return true;
        });
        if (area != nullptr) w.guarded_step(area[A::at.track]);
    }
}

/// The same on the straight path.
template <class A>
[[gnu::always_inline]] inline void write_straight(writer& w, const holder_of<A>* object) {
    if constexpr (run_begun_by<A> != 0) w.begin_run(run_begun_by<A>);
    if constexpr (has_fixed_form<A>)
        if (w.run_fits) return w.put(field_of<A>(object), values_in_form<A>);
    write<A, true>(w, object, nullptr);
}

/// The flags byte, and the ra data block when it says so: the block's contents belong to others and go out empty.
inline void write_flags(writer& w, u8 flags) {
    flags &= LOOM_WIRE_FLAGS;
    w.frame_field(flags, _loom_instance_obj_flag_marshal);
    if ((flags & OBJ_RA_DATA) == 0) return;
    const u64 address = 0;
    const u8 kind = 0;
    w.position +=
        _loom_instance_ra_data_marshal(w.c.handle, w.c.domain, w.at(), &address, &kind, w.room(), w.c.error);
}

/// The jump is written empty in front of the fields and again when their end is known.
class jump_writer {
  public:
    explicit jump_writer(writer& w) : start_(w.position) {
        w.frame_field(loom_wire_jump{0}, _loom_variant_jump_marshal);
        has_room_ = w.position != start_;
    }
    void close(const writer& w) const {
        if (!has_room_) return;
        const auto jump = static_cast<loom_wire_jump>(w.position - start_);
        if (direct::offered)
            store_form(w.buffer + start_, &jump, 1);
        else
            _loom_variant_jump_marshal(w.c.handle, w.c.domain, w.buffer + start_, &jump, sizeof jump, w.c.error);
    }

  private:
    u32 start_;
    bool has_room_;
};

/// Entry of a binary operation: false when an earlier error or the lack of any room stops it.
inline bool enter_with_room(const call& c, i32 length) {
    if (!c.enter()) return false;
    if (length >= 1) return true;
    c.fail(LOOM_EMSGSIZE);
    return false;
}
/// That of a writer: there must be an instance, too.
inline bool enter_with_room(const call& c, const void* object, i32 length) {
    if (!enter_with_room(c, length)) return false;
    if (object != nullptr) return true;
    c.fail(LOOM_ENOENT);
    return false;
}

/// The variant to write an instance in: its own, within what this build knows and, when `checked`, within what the
/// peer knows. A peer that knows less gets the older form, and the caller gets error 43: it is kept aside here
/// (`*cut_down`) so that the fields are written, and stands in the error word at the end.
template <class Model>
inline i8 variant_to_write(const call& c, i8 own, bool checked, bool* cut_down) {
    const i8 peer = static_cast<i8>(direct::domain_variant(c.handle, Model::type::type_info(), c.error));
    *cut_down = checked && own > peer;
    if (*cut_down) {
        c.fail_epoch();
        *c.error = 0;
        own = peer;
    }
    return clamp_variant<Model>(own);
}
inline void bring_back_epoch_error(const writer& w) {
    if (!w.cut_down || *w.c.error != 0) return;
    // It was reported when it was found.
    *w.c.error = LOOM_EIDRM;
    w.c.handle->last_error = LOOM_EIDRM;
}

inline void write_variant(writer& w, i8 variant) { w.frame_field(variant, _loom_instance_variant_marshal); }

/// The plain case of anything with a header: no error, no peer of another build, a variant that this build knows,
/// and room for `size` bytes.
template <class Model>
[[gnu::always_inline]] inline bool is_plain_case(const call& c, const typename Model::object* object, i32 length,
                                                 u32 size) {
    return direct::offered && !c.pending() && object != nullptr && length >= static_cast<i32>(size) &&
           c.handle->domain_state.peer == nullptr && header_of(object)->loom_variant <= Model::newest;
}
/// That of a record: besides, nothing is tracked.
template <class Model>
[[gnu::always_inline]] inline bool writes_straight(const call& c, const typename Model::object* object,
                                                   i32 length) {
    if (!is_plain_case<Model>(c, object, length, wire::record_frame_size)) return false;
    const tracking_mode mode = c.mode();
    return goes_straight<Model>(header_of(object)) &&
           (mode == tracking_mode::absent || mode == tracking_mode::off);
}

} // namespace trellis::codec

namespace trellis::record {

/// Worker of both on the straight path.
template <class M>
[[gnu::always_inline]] inline u32 marshal_straight(loom_handle* handle, u32 domain, u8* buffer,
                                                   const typename M::object* object, i32 length, u32* err) {
    const call c{handle, domain, err};
    c.clear_last_error();
    const i8 variant = header_of(object)->loom_variant;
    codec::writer w{c, buffer, wire::record_frame_size, length, false};
    if (variant >= 0)
        codec::each_reached<M>(
            variant, [&]<class A>() __attribute__((always_inline)) {
                codec::write_straight<A>(w, object);
                return true;
            });
    buffer[0] = static_cast<u8>(variant);
    buffer[wire::flags_place] = 0;
    const auto jump = static_cast<loom_wire_jump>(w.position - wire::record_jump_place);
    codec::store_form(buffer + wire::record_jump_place, &jump, 1);
    codec::bring_back_epoch_error(w);
    return w.position;
}

/// Worker of both in every other case. `checked` compares the instance's variant with the peer's; the parts
/// of the record are compared in any case.
template <class M>
[[gnu::noinline]] u32 marshal_internal(const call& given, void* buffer, const typename M::object* object,
                                       i32 length, bool checked) {
    using says = diag::record_says;
    const call c = given; // a copy that nobody else sees stays in registers
    if (!codec::enter_with_room(c, object, length)) return 0;
    bool cut_down;
    const i8 variant = codec::variant_to_write<M>(c, direct::instance_variant(object, 1, 0), checked, &cut_down);
    codec::writer w{c, static_cast<u8*>(buffer), 0, length, cut_down};
    codec::write_variant(w, variant);

    u8 flags = direct::instance_flags(object, 1, 0);
    const u8* area = nullptr;
    switch (c.mode()) {
    case tracking_mode::corrupted: diag::die<M, says::marshal_internal_corrupted_handle>();
    case tracking_mode::on:
        area = (flags & OBJ_STATE_TRACKED) != 0 ? tracking_area<M>(c, object) : codec::blank_area<M>::bytes;
        flags |= OBJ_STATE_TRACKED;
        break;
    default: flags &= static_cast<u8>(~OBJ_STATE_TRACKED);
    }
    codec::write_flags(w, flags);

    const codec::jump_writer jump(w);
    if (variant >= 0)
        codec::each_reached<M>(
            variant, [&]<class A>() __attribute__((always_inline)) {
                codec::write<A>(w, object, area);
                return true;
            });
    jump.close(w);
    codec::bring_back_epoch_error(w);
    return w.position;
}

template <class M>
u32 marshal(loom_handle* handle, u32 domain, void* buffer, const typename M::object* object, i32 length,
            u32* err) {
    const call c{handle, domain, err};
    if (codec::writes_straight<M>(c, object, length))
        return M::type::marshal_straight(handle, domain, static_cast<u8*>(buffer), object, length, err);
    return marshal_internal<M>(c, buffer, object, length, true);
}

template <class M>
u32 marshal_for_clone(loom_handle* handle, u32 domain, void* buffer, const typename M::object* object, i32 length,
                      u32* err) {
    const call c{handle, domain, err};
    if (codec::writes_straight<M>(c, object, length))
        return M::type::marshal_straight(handle, domain, static_cast<u8*>(buffer), object, length, err);
    return marshal_internal<M>(c, buffer, object, length, false);
}

} // namespace trellis::record
