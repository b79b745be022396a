// The names that records, their attributes, enumerations and flag sets bring into the library: every name of every
// family is exported, and nothing else of these families is.
#include "tests/support/typed.h"

#include <trellis_test_types/string_key.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <set>

namespace trellis::testing {
namespace {

constexpr const char* record_operations[] = {"create",
                                             "create_cr",
                                             "create_internal",
                                             "initialize",
                                             "set_instance_embedded",
                                             "get_oid_count",
                                             "get_object_references",
                                             "sizeof",
                                             "sizeof_internal",
                                             "destroy",
                                             "destroy_cr",
                                             "destroy_internal",
                                             "adjust_variant",
                                             "variant_data_index_cap",
                                             "get_luid",
                                             "offset_remove",
                                             "offset_update",
                                             "clone",
                                             "clone_cr",
                                             "clone_internal",
                                             "marshal_for_clone",
                                             "marshal",
                                             "unmarshal",
                                             "len",
                                             "len_cr",
                                             "compare",
                                             "hash",
                                             "is_valid_cr",
                                             "get_all",
                                             "get",
                                             "set_all",
                                             "set",
                                             "set_all_state_tracking_flag",
                                             "post_copyout_cleanup",
                                             "print",
                                             "print_cr",
                                             "to_xml",
                                             "toxml_cr",
                                             "from_xml"};
constexpr const char* enumeration_operations[] = {"variant_data_index_cap",
                                                  "get_luid",
                                                  "create",
                                                  "create_internal",
                                                  "create_cr",
                                                  "initialize",
                                                  "set_instance_embedded",
                                                  "get_oid_count",
                                                  "get_object_references",
                                                  "destroy",
                                                  "destroy_internal",
                                                  "destroy_cr",
                                                  "map_to_user_value",
                                                  "map_to_internal_value",
                                                  "adjust_variant",
                                                  "compare",
                                                  "hash",
                                                  "sizeof",
                                                  "len",
                                                  "len_cr",
                                                  "get",
                                                  "get_value",
                                                  "set",
                                                  "set_value",
                                                  "marshal",
                                                  "unmarshal",
                                                  "print",
                                                  "print_cr",
                                                  "to_xml",
                                                  "toxml_cr",
                                                  "from_xml",
                                                  "is_valid_cr"};
constexpr const char* flag_set_operations[] = {"variant_data_index_cap",
                                               "initialize",
                                               "set_instance_embedded",
                                               "get_oid_count",
                                               "get_object_references",
                                               "get_luid",
                                               "create_internal",
                                               "create",
                                               "create_cr",
                                               "destroy",
                                               "destroy_internal",
                                               "destroy_cr",
                                               "adjust_variant",
                                               "compare",
                                               "hash",
                                               "sizeof",
                                               "len",
                                               "len_cr",
                                               "marshal",
                                               "unmarshal",
                                               "print",
                                               "print_cr",
                                               "to_xml",
                                               "toxml_cr",
                                               "from_xml",
                                               "is_valid_cr",
                                               "in_range",
                                               "get",
                                               "set",
                                               "get_value",
                                               "get_cr",
                                               "set_value",
                                               "set_cr"};

/// Names of the functions that the library exports, as the binutils see them.
std::set<std::string> exported_functions() {
    Dl_info info{};
    dladdr(reinterpret_cast<const void*>(&string_key_create), &info);
    const std::string command = "nm -D --defined-only --format=posix '" + std::string(info.dli_fname) + "'";
    std::unique_ptr<FILE, int (*)(FILE*)> lines(popen(command.c_str(), "r"), pclose);
    std::set<std::string> names;
    char name[512];
    char kind;
    while (fscanf(lines.get(), "%511s %c%*[^\n]", name, &kind) == 2)
        if (kind == 'T') names.insert(name);
    return names;
}

class names : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { functions_ = new std::set<std::string>(exported_functions()); }
    static void TearDownTestSuite() { delete functions_; }

    /// All of the names are functions of the library, and there are as many different ones as expected.
    void expect_exported(const std::vector<std::string>& wanted, size_t count) {
        std::string missing;
        for (const std::string& each : wanted)
            if (functions_->count(each) == 0) missing += each + "\n";
        EXPECT_EQ(missing, "");
        EXPECT_EQ(std::set<std::string>(wanted.begin(), wanted.end()).size(), count);
        EXPECT_EQ(wanted.size(), count);
    }
    static inline std::set<std::string>* functions_;
};

template <size_t N>
std::vector<std::string> family(const char* type, const char* const (&operations)[N]) {
    std::vector<std::string> all;
    for (const char* each : operations)
        all.push_back(std::string(type) + "_" + each);
    return all;
}
void append(std::vector<std::string>& all, const std::vector<std::string>& more) {
    all.insert(all.end(), more.begin(), more.end());
}

TEST_F(names, of_the_record_family_are_all_there) {
    std::vector<std::string> wanted;
    for (const record_driver& each : all_records())
        append(wanted, family(each.name, record_operations));
    expect_exported(wanted, 4017);
}

TEST_F(names, of_the_accessors_are_all_there) {
    std::vector<std::string> wanted;
    for (const record_driver& each : all_records())
        append(wanted, each.accessors);
    // 6288 and the three block operations of each of the six arrays of booleans.
    expect_exported(wanted, 6288 + 3 * 6);
}

TEST_F(names, of_the_enumeration_and_flag_set_families_are_all_there) {
    std::vector<std::string> enumerations;
    std::vector<std::string> flag_sets;
    for (const compact_driver& each : all_compact_types()) {
        if (each.is_flag_set)
            append(flag_sets, family(each.name, flag_set_operations));
        else
            append(enumerations, family(each.name, enumeration_operations));
    }
    expect_exported(enumerations, 480);
    expect_exported(flag_sets, 99);
}

TEST_F(names, of_types_are_not_followed_by_others) {
    // Whatever begins with a type's name and belongs to no table or message belongs to one of the four families.
    std::set<std::string> known;
    for (const record_driver& each : all_records()) {
        for (const std::string& name : family(each.name, record_operations))
            known.insert(name);
        known.insert(each.accessors.begin(), each.accessors.end());
    }
    for (const compact_driver& each : all_compact_types()) {
        if (each.is_flag_set)
            for (const std::string& name : family(each.name, flag_set_operations))
                known.insert(name);
        else
            for (const std::string& name : family(each.name, enumeration_operations))
                known.insert(name);
    }
    std::string unknown;
    for (const std::string& name : *functions_) {
        if (known.count(name) != 0) continue;
        for (const record_driver& each : all_records())
            if (name.rfind(std::string(each.name) + "_", 0) == 0 &&
                name.find("_action_message_") == std::string::npos) {
                unknown += name + "\n";
                break;
            }
    }
    EXPECT_EQ(unknown, "");
}

TEST_F(names, are_the_pinned_ones) {
    std::ifstream file(PINNED_NAMES);
    std::set<std::string> pinned;
    for (std::string line; std::getline(file, line);)
        if (!line.empty()) pinned.insert(line);
    ASSERT_FALSE(pinned.empty()) << PINNED_NAMES;
    std::string differences;
    for (const std::string& each : pinned)
        if (functions_->count(each) == 0) differences += "missing " + each + "\n";
    for (const std::string& each : *functions_)
        if (pinned.count(each) == 0) differences += "new " + each + "\n";
    EXPECT_EQ(differences, "");
}

} // namespace
} // namespace trellis::testing
