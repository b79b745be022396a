// Any table of any bundle, its functions found by their exported names, its records made from XML. Keys are small
// numbers here, whatever the key's type: `element` turns one into an XML text whose order is that of the numbers.
#pragma once

#include "tests/support/test_handle.h"

#include <map>
#include <string>
#include <vector>

namespace table_tests {

using trellis::i32;
using trellis::u32;
using trellis::u64;
using trellis::u8;
using trellis::testing::test_handle;

/// What the schema says of a table, in the words of the test.
struct table_description {
    std::string table;
    std::string key;      // the attribute; empty: the whole payload or a key record
    std::string key_type; // value type, or key record
    std::string payload;
    bool ordered = false;

    bool has_key_object() const { return key.empty() && key_type != payload; }
    /// "<table>_<payload>_<attribute>", "<table>_<key type>_"
    std::string path() const { return table + "_" + (key.empty() ? key_type : payload) + "_" + key; }
    /// The same without an empty attribute.
    std::string joined_path() const { return key.empty() ? table + "_" + key_type : path(); }
    /// Bundle of the table and the document with this key; `number` is below 6.
    std::string document(unsigned number) const;
};

/// Finds an exported function; fails the test when there is none.
void* exported(const std::string& name);
template <class Function>
Function* function(const std::string& name) {
    return reinterpret_cast<Function*>(exported(name));
}

class any_table {
  public:
    any_table(test_handle& handle, const table_description& is);

    loom_table* open(const char* name = "the_table");
    /// A record with that key and source, not in the table yet. Its label in dumps is "number:source".
    loom_table_record* make(unsigned number, u32 src = 1);
    loom_table_record* insert(unsigned number, u32 src = 1);
    /// Address of the key as keyed searches take it, of a record that the table made for this number.
    const void* key(unsigned number);

    /// Calls `<table>_<operation>` or, with a name that begins with a dot, `<path>_<operation>`.
    template <class Result, class... Argument>
    Result call(const std::string& operation, Argument... argument) {
        const std::string name =
            operation[0] == '.' ? is_.path() + "_" + operation.substr(1) : is_.table + "_" + operation;
        return function<Result(Argument...)>(name)(argument...);
    }

    std::string label(const loom_table_record* record) const;
    /// All records in the order of the tree, "1:1 3:2".
    std::string dump();
    /// The records that keyed get_first and get_next visit.
    std::string walk();
    std::string walk_back();
    /// Ends all records that are left, and the probes for keys.
    void clear();

    test_handle& handle;
    loom_table* table = nullptr;
    u32 err = 0;

  private:
    loom_table_record* from_xml(unsigned number);

    const table_description& is_;
    std::map<const loom_table_record*, std::string> labels_;
    std::map<unsigned, loom_table_record*> probes_;
    std::vector<loom_table_record*> records_;
};

} // namespace table_tests
