// A second, slow implementation of a bundle's operations for tests: it walks objects by a description that is read
// at run time, over raw memory, and shares no code with the library's templates. It fills objects with random
// values, says what their binary, text and XML forms must be, and compares and hashes them. Value types and tags
// are the runtime's, found by name.
#pragma once

#include "instance/attribute_shape.h"

#include <loom/handle.h>
#include <loom/text.h>

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace trellis::testing {

struct attribute_description {
    std::string name;
    attribute_shape shape = attribute_shape::plain;
    std::string type; // of the value or element
    uint32_t offset = 0;
    uint32_t track = 0; // first byte in the tracking area
    int since = 0;
    uint32_t extent = 0;       // of fixed arrays and fixed strings
    std::string length;        // the attribute that counts a variable array or counted string
    std::string discriminator; // the attribute that selects an arm
    std::string target;        // the table of a reference
    int32_t case_value = 0;
};

struct record_description {
    std::string name;
    int newest = 0;
    uint32_t base_size = 0;
    std::vector<uint32_t> layout_sizes;
    std::vector<uint32_t> tracking_sizes;
    std::vector<attribute_description> attributes;

    const attribute_description& attribute(const std::string& wanted) const;
};

struct enumeration_description {
    struct member {
        std::string name;
        int32_t value = 0;
        int since = 0;
    };
    std::string name;
    int newest = 0;
    std::vector<member> members;
};

struct flag_set_description {
    struct bit {
        std::string name;
        int since = 0;
    };
    std::string name;
    int newest = 0;
    uint32_t size = 0; // of a value in place
    std::vector<bit> bits;
    uint32_t bytes() const { return static_cast<uint32_t>((bits.size() + 7) / 8); }
    /// Bytes of the bits that a variant has; a negative one has those of variant 0.
    uint32_t bytes_within(int variant) const;
};

struct table_description {
    std::string name;
    std::string payload;
    std::string key; // record of a key of its own; empty when the key is inside the payload
    bool ordered = false;
};

struct schema_description {
    std::string bundle;
    std::map<std::string, record_description> records;
    std::map<std::string, enumeration_description> enumerations; // the bundle's own
    std::map<std::string, flag_set_description> flag_sets;
    std::vector<table_description> tables;
    std::map<std::string, std::string> messages; // with their payloads; empty for none

    /// Reads what the schema compiler prints as JSON. Throws std::runtime_error that names what is missing.
    static schema_description read(const std::string& path);
};

/// The exported function of a name. Throws std::runtime_error that names it when there is none.
void* find_function(const std::string& name);

/// The operations of any type with exported functions, called by the type's name.
class named_type {
  public:
    explicit named_type(std::string name) : name_(std::move(name)) {}

    void* create(loom_handle* handle, uint32_t domain) const;
    void destroy(loom_handle* handle, uint32_t domain, void* object) const;
    uint32_t len(loom_handle* handle, uint32_t domain, const void* object) const;
    uint32_t marshal(loom_handle* handle, uint32_t domain, void* buffer, const void* object, int32_t length,
                     uint32_t* err) const;
    uint32_t unmarshal(loom_handle* handle, uint32_t domain, const void* buffer, void* object, int32_t length,
                       uint32_t existing, uint32_t* err) const;
    int32_t print(loom_handle* handle, uint32_t domain, char* buffer, int32_t depth, const char* label,
                  const void* object, int32_t length, uint32_t* err) const;
    uint32_t to_xml(loom_handle* handle, uint32_t domain, const char* element, char* buffer, const void* object,
                    int32_t length, uint8_t state, uint32_t* err) const;
    void from_xml(loom_handle* handle, uint32_t domain, const char* path, const loom_xml_document* document,
                  void* object, uint32_t* err) const;
    int32_t compare(const void* a, const void* b) const;
    uint32_t hash(const void* object, uint32_t seed) const;

  private:
    template <class Signature, class... Argument>
    auto run(const char* operation, Argument... argument) const;

    std::string name_;
};

/// What fill may do beside choosing values.
struct fill_options {
    bool lower_variants = false; // the object and its parts take any variant, negative ones too
    bool stale_arms = false;     // arms of other cases stay behind, and selected ones may be missing
    bool presentable = false;    // only what the text forms can carry: members and finite numbers
    bool within_variant = false; // nothing that came after the variant in which an object was made
};

class model_walker {
  public:
    model_walker(const schema_description& schema, loom_handle* handle, uint32_t domain)
        : schema_(schema), handle_(handle), domain_(domain) {}

    /// Gives a new object of the type random contents, and random state bytes when it is tracked.
    void fill(const std::string& type, void* object, std::mt19937& random, const fill_options& options) const;

    /// Gives the object and all its parts that have one this variant.
    void set_variants(const std::string& type, void* object, int variant) const;
    /// Gives each of them the newest of its type.
    void raise_variants(const std::string& type, void* object) const;

    /// What the library must write into a buffer without end. A selected arm without value makes `*complete`
    /// false.
    std::vector<uint8_t> marshal(const std::string& type, const void* object, bool* complete) const;
    /// What it must print, with zeros where nothing is written.
    std::string print(const std::string& type, const void* object, const std::string& label, int depth) const;
    std::string to_xml(const std::string& type, const void* object, const std::string& element,
                       uint8_t state) const;
    int compare(const std::string& type, const void* a, const void* b) const;
    uint32_t hash(const std::string& type, const void* object, uint32_t seed) const;

    /// The object's own tracking area; null without tracking. For objects that are in no other.
    uint8_t* area_of(const std::string& type, const void* object) const;
    /// The state bytes in an area of the type, element bytes of variable arrays included, in a fixed order.
    std::vector<uint8_t> states(const std::string& type, const void* object, const uint8_t* area) const;

    /// All that the object holds, whatever its variant: {"variant", "attributes": {name: {"value", "state",
    /// "elements"}}} of a record, {"variant", "place"} of an enumeration (the value where no member has it),
    /// {"variant", "bits"} of a flag set, and the bytes of its binary form of any other value. States are of
    /// tracked objects; "elements" are those of an array. Bytes are hexadecimal digits.
    nlohmann::json view(const std::string& type, const void* object) const;

    /// The values of an attribute: one, those of an array or list, an arm if there is one.
    std::vector<const void*> values_of(const attribute_description& a, const record_description& in,
                                       const void* object) const;
    uint32_t width_of(const std::string& type) const;
    uint32_t count_of(const attribute_description& a, const record_description& in, const void* object) const;
    bool is_selected(const attribute_description& a, const record_description& in, const void* object) const;

  private:
    struct elements; // the values of an attribute, with their areas
    elements elements_of(const attribute_description& a, const record_description& in, const void* object,
                         const uint8_t* area) const;
    const record_description* record_of(const std::string& type) const;
    uint32_t tracking_size_of(const std::string& type) const;
    uint32_t tracking_alignment_of(const std::string& type) const;
    bool tracking_on() const;

    void fill_record(const record_description& record, void* object, std::mt19937& random,
                     const fill_options& options) const;
    void fill_value(const std::string& type, void* value, std::mt19937& random, const fill_options& options) const;
    void fill_attribute(const record_description& record, const attribute_description& a, void* object,
                        std::mt19937& random, const fill_options& options) const;
    void fill_states(const std::string& type, const void* object, uint8_t* area, std::mt19937& random) const;
    template <class Choose>
    void choose_variants(const std::string& type, void* value, Choose&& choose) const;

    void marshal_value(const std::string& type, const void* value, const uint8_t* area, std::vector<uint8_t>& out,
                       bool* complete) const;
    void marshal_attribute(const record_description& record, const attribute_description& a, const void* object,
                           const uint8_t* area, std::vector<uint8_t>& out, bool* complete) const;
    void print_value(const std::string& type, const void* value, const std::string& label, int depth,
                     std::string& out) const;
    void print_attribute(const record_description& record, const attribute_description& a, const void* object,
                         int depth, std::string& out) const;
    void render_value(const std::string& type, const void* value, const uint8_t* area, const std::string& element,
                      uint8_t state, std::string& out) const;
    void render_attribute(const record_description& record, const attribute_description& a, const void* object,
                          const uint8_t* area, std::string& out) const;
    int compare_values(const std::string& type, const void* a, const void* b) const;
    int compare_attribute(const record_description& record, const attribute_description& of, const void* a,
                          const void* b) const;
    uint32_t hash_attribute(const record_description& record, const attribute_description& a, const void* object,
                            uint32_t seed) const;
    nlohmann::json view_of_value(const std::string& type, const void* value, const uint8_t* area) const;
    nlohmann::json view_of_attribute(const record_description& record, const attribute_description& a,
                                     const void* object, const uint8_t* area) const;
    void collect_states(const std::string& type, const void* object, const uint8_t* area,
                        std::vector<uint8_t>& out) const;

    const schema_description& schema_;
    loom_handle* handle_;
    uint32_t domain_;
};

} // namespace trellis::testing
