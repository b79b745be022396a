// Ordered tables: beside the tree, the records with a source below 255 stand on a ring in the order of a number in
// their payload. Insert and delete renumber; batch mode puts that off to one closing pass. No traversal reads the
// ring.
//
// A cell is a record's `seq_next`; links and the table's `seq_head` hold addresses of cells:
//
//     seq_head -> [ first.seq_next ] -> [ second.seq_next ] -> [ first.seq_next ]
#pragma once

#include "tables/table_model.h"

namespace trellis::table {

/// As a sequence number: the place behind the last record.
constexpr u32 sequence_end = 0xFFFFFFFF;

template <class T>
inline u32& sequence_of(record_of<T>* record) {
    return payload_in<T>(record)->*T::sequence;
}
template <class T>
inline record_of<T>* record_of_cell(void* cell) {
    return reinterpret_cast<record_of<T>*>(static_cast<unsigned char*>(cell) - offsetof(record_of<T>, seq_next));
}
template <class T>
inline record_of<T>* following(const record_of<T>* record) {
    return record_of_cell<T>(record->seq_next);
}
template <class T>
inline record_of<T>* preceding(const record_of<T>* record) {
    return record_of_cell<T>(record->seq_prev);
}

/// Is the record's number a place in the sequence? The end is replaced by its number.
template <class T>
bool accept_position(const call& c, loom_table* table, record_of<T>* record) {
    if (record->loom_record.src == shadow_source) return true;
    u32& number = sequence_of<T>(record);
    if (number == sequence_end) {
        if (table->seq_batch_mode != 0) {
            say<T, says::insert_internal_sequence_end_in_batch>();
            c.fail(LOOM_EINVAL);
            return false;
        }
        number = table->seq_count + 1;
        return true;
    }
    if (number - 1 < table->seq_count + 1) return true;
    say<T, says::insert_internal_sequence_out_of_range>();
    c.fail(LOOM_E2BIG);
    return false;
}

/// Links the record into the ring behind `before`.
template <class T>
inline void link_behind(const call& c, record_of<T>* before, record_of<T>* record) {
    record_of<T>* after = following<T>(before);
    c.store<void*>(&record->seq_next, &after->seq_next, nullptr);
    c.store<void*>(&record->seq_prev, &before->seq_next, nullptr);
    c.store<void*>(&before->seq_next, &record->seq_next, nullptr);
    c.store<void*>(&after->seq_prev, &record->seq_next, nullptr);
}

/// Places an inserted record by its number. Outside batch mode, what comes behind it moves up by one.
template <class T>
void enter_sequence(const call& c, loom_table* table, record_of<T>* record) {
    const bool batch = table->seq_batch_mode != 0;
    if (table->seq_head == nullptr) {
        c.store<void*>(&record->seq_next, &record->seq_next, nullptr);
        c.store<void*>(&record->seq_prev, &record->seq_next, nullptr);
        c.store<void*>(&table->seq_head, &record->seq_next, nullptr);
        c.store<u32>(&table->seq_count, table->seq_count + 1, nullptr);
        return;
    }
    record_of<T>* first = record_of_cell<T>(table->seq_head);
    record_of<T>* last = preceding<T>(first);
    const u32 number = sequence_of<T>(record);
    record_of<T>* before = last;
    while (sequence_of<T>(before) >= number) {
        if (!batch) c.store<u32>(&sequence_of<T>(before), sequence_of<T>(before) + 1, before);
        if (before == first) { // everything comes behind the record: it is the new first
            before = nullptr;
            break;
        }
        before = preceding<T>(before);
    }
    link_behind<T>(c, before == nullptr ? last : before, record);
    if (before == nullptr) c.store<void*>(&table->seq_head, &record->seq_next, nullptr);
    if (!batch) c.store<u32>(&table->seq_count, table->seq_count + 1, nullptr);
}

/// Finds a deleted record on the ring, lowering the numbers behind it outside batch mode. In batch mode numbers
/// repeat, and the record itself counts.
template <class T>
record_of<T>* find_in_sequence(const call& c, loom_table* table, record_of<T>* record) {
    if (table->seq_head == nullptr) return nullptr;
    const bool batch = table->seq_batch_mode != 0;
    const u32 number = sequence_of<T>(record);
    record_of<T>* first = record_of_cell<T>(table->seq_head);
    for (record_of<T>* each = preceding<T>(first);; each = preceding<T>(each)) {
        if (batch ? each == record : sequence_of<T>(each) == number) return each;
        if (!batch) c.store<u32>(&sequence_of<T>(each), sequence_of<T>(each) - 1, nullptr);
        if (each == first) return nullptr;
    }
}

/// Takes a deleted record off the ring. False with error 2 when its number is not there; nothing is repaired then.
template <class T>
bool leave_sequence(const call& c, loom_table* table, record_of<T>* record) {
    record_of<T>* found = find_in_sequence<T>(c, table, record);
    if (found == nullptr) {
        say<T, says::delete_internal_sequence_not_found>();
        c.fail(LOOM_ENOENT);
        return false;
    }
    record_of<T>* next = following<T>(found);
    record_of<T>* previous = preceding<T>(found);
    const bool alone = next == found;
    c.store<void*>(&previous->seq_next, &next->seq_next, nullptr);
    c.store<void*>(&next->seq_prev, &previous->seq_next, nullptr);
    if (table->seq_head == &found->seq_next)
        c.store<void*>(&table->seq_head, alone ? nullptr : &next->seq_next, nullptr);
    // An empty ring has no number in use, whatever gaps a batch has left.
    c.store<u32>(&table->seq_count, alone ? 0 : table->seq_count - 1, nullptr);
    return true;
}

template <class T>
void seq_compact_batch_start(loom_handle* handle, u32 domain, loom_table* table, u32* err) {
    const call c{handle, domain, err};
    if (table == nullptr) return c.fail(LOOM_ENOENT);
    if (table->seq_batch_mode == 0) {
        c.store<u32>(&table->seq_batch_mode, 1, nullptr);
        return;
    }
    say<T, says::seq_compact_batch_start_already_in_batch>();
    c.fail(LOOM_EINVAL);
}

/// The closing pass only raises numbers: repeats and disorder go, gaps stay.
template <class T>
void seq_compact_batch_end(loom_handle* handle, u32 domain, loom_table* table, u32* err) {
    const call c{handle, domain, err};
    if (table == nullptr) return c.fail(LOOM_ENOENT);
    if (table->seq_batch_mode == 0) {
        say<T, says::seq_compact_batch_end_not_in_batch>();
        c.fail(LOOM_EINVAL);
        return;
    }
    u32 last = 0;
    if (table->seq_head != nullptr) {
        record_of<T>* first = record_of_cell<T>(table->seq_head);
        record_of<T>* each = first;
        do {
            u32& number = sequence_of<T>(each);
            if (number <= last) c.store<u32>(&number, last + 1, each);
            last = number;
            each = following<T>(each);
        } while (each != first);
    }
    c.store<u32>(&table->seq_count, last, nullptr);
    c.store<u32>(&table->seq_batch_mode, 0, nullptr);
}

} // namespace trellis::table
