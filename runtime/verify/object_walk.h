// Walking over objects by the descriptions of their types: every block that they own is reached, every pointer is
// proved before it is followed, and the references that they hold are counted. Used by verification and salvage.
#pragma once

#include "runtime/verify/block_map.h"
#include "runtime/verify/findings.h"
#include "runtime/verify/known_types.h"

#include <set>

namespace loom {

class object_walk {
  public:
    object_walk(block_map& blocks, const known_types& types, findings& found)
        : blocks_(blocks), types_(types), found_(found) {}

    /// Where the objects walked next are held: "table bed_tbl".
    void set_holder(std::string holder) { holder_ = std::move(holder); }
    /// Tells where the tracking area of an object is that has it elsewhere.
    void add_tracking_offset(const void* object, u32 offset) { tracking_offsets_[object] = offset; }

    /// Reaches an object of that type in a block of its own, and all that it owns. False when something is wrong
    /// with it, so that nobody should follow its pointers.
    bool walk(const void* object, const known_type& type);
    /// The same for an object whose block was reached already.
    bool walk_reached(const void* object, const known_type& type);
    /// Called with each object that was looked at, in place or not, and with each loom_oid in them.
    using part_fn = std::function<void(const std::byte*)>;
    void set_visitors(part_fn object, part_fn reference) {
        visit_object_ = std::move(object);
        visit_reference_ = std::move(reference);
    }
    /// Asked about a type word that leads to no type: whether it may be that of the type expected there.
    using word_fn = std::function<bool(const loom_type_info* word, const known_type& expected)>;
    void set_judge_of_words(word_fn judge) { judge_word_ = std::move(judge); }
    /// Counted references that were met, by reference.
    const std::unordered_map<u64, u64>& references() const { return references_; }
    /// Types of objects that were met and are not described: what these own is not known.
    const std::set<std::string>& undescribed() const { return undescribed_; }

  private:
    struct waiting_object {
        const std::byte* at;
        const known_type* type; ///< null: of a value that is not a record
        const loom_attribute_description* value;
    };
    /// An object in place, inside a block.
    struct part {
        const std::byte* at;
        const known_type& type;
        const std::byte* block;
        u64 block_size;
        bool nested;
    };

    std::string place_of(const part& holder, const loom_attribute_description& attribute) const;
    std::string place_of(const void* object, const std::string& type) const;
    bool damaged(const part& holder, const loom_attribute_description& attribute, std::string meaning);
    bool walk_waiting(const waiting_object& next);
    bool has_right_type(const part& object);
    bool walk_part(const part& object);
    bool walk_attribute(const part& holder, const loom_attribute_description& attribute);
    bool walk_value(const part& holder, const loom_attribute_description& attribute, const std::byte* value,
                    const std::byte* block, u64 block_size);
    bool walk_array(const part& holder, const loom_attribute_description& attribute);
    bool walk_list(const part& holder, const loom_attribute_description& attribute);
    bool walk_element_flags(const part& holder, const loom_attribute_description& attribute, u64 count);
    bool take_block(const part& holder, const loom_attribute_description& attribute, const void* block,
                    u64 needed);
    void count_reference(const std::byte* at);
    void wait_for(const part& holder, const loom_attribute_description& attribute, const void* object);

    block_map& blocks_;
    const known_types& types_;
    findings& found_;
    std::string holder_;
    std::unordered_map<const void*, u32> tracking_offsets_;
    std::vector<waiting_object> waiting_;
    std::unordered_map<u64, u64> references_;
    std::set<std::string> undescribed_;
    part_fn visit_object_;
    part_fn visit_reference_;
    word_fn judge_word_;
};

} // namespace loom
