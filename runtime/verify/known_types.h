// The types that a database knows, as walks over its objects need them: found by type word and by luid, with their
// descriptions.
#pragma once

#include "runtime/database/layout.h"
#include "runtime/types/type_description.h"

#include <array>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace loom {

struct known_type {
    const loom_type_info* info = nullptr;
    const loom_type_description* description = nullptr; ///< null when there is none that can be followed
    std::string name;
    /// Those of its attributes that own something, hold references, or have parts that do.
    std::vector<const loom_attribute_description*> owning;
    std::vector<const known_type*> references; ///< by index; null for types that the database does not know
};

class known_types {
  public:
    /// Takes in a record that is known to lie in the database; `description` may be null.
    void add(const loom_type_info& info, const loom_type_description* description);
    /// From now on that type word stands for the type as well.
    void add_word(const loom_type_info* word, const known_type& type) { other_words_[word] = &type; }
    /// Leads references to their types, when all have been added.
    void connect();

    const known_type* of(const loom_type_info* info) const;
    const known_type* of_luid(const u8* luid) const;
    /// The table type whose records are of that type, or null.
    const known_type* table_of(const known_type& record) const;
    /// The type that a reference of a description leads to, or null.
    static const known_type* referred(const known_type& from, u32 reference);

  private:
    std::unordered_map<const loom_type_info*, std::unique_ptr<known_type>> by_info_;
    std::unordered_map<const loom_type_info*, const known_type*> other_words_;
    std::map<std::array<u8, 16>, known_type*> by_luid_;
};

} // namespace loom
