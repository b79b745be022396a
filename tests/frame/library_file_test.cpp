// The catalogue's library as a file: trace store, manifest, call counters, exported names.
#include "tests/frame/elf_file.h"

#include <gtest/gtest.h>

#include <bzlib.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>

namespace trellis::test {
namespace {

const elf_file& library() {
    static const elf_file file(TRELLIS_CATALOGUE_LIBRARY);
    return file;
}

template <class T>
T number_at(const std::string& bytes, std::size_t offset) {
    T value{};
    if (offset + sizeof value > bytes.size())
        ADD_FAILURE() << "nothing at " << offset;
    else
        std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

const std::string& section_bytes(const std::string& name) {
    static const std::string nothing;
    const elf_section* section = library().section(name);
    EXPECT_NE(section, nullptr) << name;
    return section == nullptr ? nothing : section->bytes;
}

// ---- Trace store -----------------------------------------------------------------------------------------------

std::vector<const elf_section*> units() {
    auto all = library().sections_with_prefix(".spoor_luids_");
    std::sort(all.begin(), all.end(), [](const elf_section* a, const elf_section* b) {
        return number_at<std::uint16_t>(a->bytes, 2) < number_at<std::uint16_t>(b->bytes, 2);
    });
    return all;
}

const std::string& all_texts() {
    static const std::string texts = [] {
        std::string stream = section_bytes(".spoor_format_strings");
        std::string out(4u << 20, '\0');
        unsigned size = static_cast<unsigned>(out.size());
        const int result = BZ2_bzBuffToBuffDecompress(out.data(), &size, stream.data(),
                                                      static_cast<unsigned>(stream.size()), 0, 0);
        EXPECT_EQ(result, BZ_OK);
        out.resize(size);
        return out;
    }();
    return texts;
}

std::vector<std::vector<std::string>> decoded() {
    std::vector<std::vector<std::string>> texts;
    std::size_t at = 0;
    for (const elf_section* unit : units()) {
        texts.emplace_back();
        for (std::size_t entry = 20; entry < unit->bytes.size(); entry += 6) {
            const auto length = number_at<std::uint16_t>(unit->bytes, entry + 4);
            texts.back().push_back(all_texts().substr(at, length));
            at += length;
        }
    }
    EXPECT_EQ(at, all_texts().size()) << "the lengths cover the store";
    return texts;
}

TEST(trace_store, six_loaded_sections_in_link_order) {
    const auto all = units();
    const std::size_t entries[] = {4503, 3996, 1, 252, 3300, 4102};
    ASSERT_EQ(all.size(), std::size(entries));
    std::set<std::string> names;
    for (std::size_t i = 0; i < all.size(); ++i) {
        EXPECT_TRUE(all[i]->loaded);
        EXPECT_FALSE(all[i]->writable);
        EXPECT_EQ(number_at<std::uint16_t>(all[i]->bytes, 0), 1u) << "version";
        EXPECT_EQ(number_at<std::uint16_t>(all[i]->bytes, 2), i);
        EXPECT_EQ(".spoor_luids_" + hexadecimal(all[i]->bytes.substr(4, 16)), all[i]->name);
        EXPECT_EQ(all[i]->size, 20 + 6 * entries[i]);
        names.insert(all[i]->name);
    }
    EXPECT_EQ(names.size(), all.size()) << "units have hashes of their own";
}

TEST(trace_store, every_text_begins_with_a_blank_and_holds_no_placeholder) {
    EXPECT_EQ(all_texts().size(), 654521u);
    std::size_t fatal = 0;
    for (const auto& unit : decoded())
        for (const std::string& text : unit) {
            ASSERT_FALSE(text.empty());
            EXPECT_EQ(text.front(), ' ');
            EXPECT_EQ(text.find('<'), std::string::npos) << text;
            EXPECT_EQ(text.find('\0'), std::string::npos) << text;
            fatal += text == " Corrupted LOOM Handle" ? 1 : 0;
        }
    EXPECT_GT(fatal, 1000u) << "equal texts keep an entry for each statement";
    EXPECT_EQ(decoded()[2], std::vector<std::string>{" type variant cached info is NULL during usage dump"});
    EXPECT_EQ(decoded()[4][0], " Initializing table vft for %s");
    EXPECT_EQ(decoded()[4][1], " Error already set when requesting trellis_test_types table vft");
}

TEST(trace_store, names_are_those_of_the_schema) {
    std::set<std::string> all;
    for (const auto& unit : decoded())
        all.insert(unit.begin(), unit.end());
    for (const char* text : {" error in const_default_type create: %s",
                             " tbl_constraint_test insert record exists for constraint_test_type name",
                             " tbl_top_level_compound_key insert record exists for compound_key ",
                             " tbl_top_level_comp_key insert record exists for comp_key ",
                             " tbl_top_level_test_no_auto_rename_key delete, record not found for ud_test_type "
                             "NOAUTORENAMEuint32key",
                             " Reallocating resource for rec_parent_with_sing_child",
                             " default trellis_test_types_tbl_constraint_test_record create handler called"})
        EXPECT_TRUE(all.contains(text)) << text;
}

TEST(trace_store, texts_and_decoder_are_not_loaded) {
    for (const char* name : {".spoor_format_strings", ".spoor_decoder", ".corvo"}) {
        const elf_section* section = library().section(name);
        ASSERT_NE(section, nullptr) << name;
        EXPECT_FALSE(section->loaded) << name;
        EXPECT_EQ(section->address, 0u) << name;
    }
    EXPECT_EQ(hexadecimal(section_bytes(".spoor_decoder")),
              "01030401010304040405040104040404050401040102040704010401040104040104");
    std::set<std::string> long_texts;
    for (const auto& unit : decoded())
        for (std::size_t i = 0; i < unit.size(); i += 61)
            if (unit[i].size() > 24) long_texts.insert(unit[i].substr(1));
    ASSERT_GT(long_texts.size(), 50u);
    for (const std::string& text : long_texts)
        EXPECT_EQ(library().loaded_bytes.find(text), std::string::npos) << text;
}

// ---- Manifest --------------------------------------------------------------------------------------------------

struct manifest_entry {
    std::uint32_t kind;
    std::string payload;
};

std::vector<manifest_entry> manifest_entries() {
    const std::string& bytes = section_bytes(".corvo");
    std::vector<manifest_entry> entries;
    for (std::size_t at = 0; at < bytes.size();) {
        const auto length = number_at<std::uint32_t>(bytes, at);
        entries.push_back({number_at<std::uint32_t>(bytes, at + 4), bytes.substr(at + 8, length)});
        at += (8 + length + 3) / 4 * 4;
    }
    return entries;
}

std::vector<std::string> manifest_lines() {
    std::vector<std::string> lines;
    const std::string text = manifest_entries().at(0).payload;
    for (std::size_t at = 0; at < text.size() && text[at] != '\0';) {
        const std::size_t end = text.find('\n', at);
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

TEST(manifest, has_the_told_sizes) {
    EXPECT_EQ(section_bytes(".corvo").size(), 18176u);
    const auto entries = manifest_entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].kind, 2u);
    EXPECT_EQ(entries[0].payload.size(), 17870u);
    EXPECT_EQ(entries[0].payload.substr(17868), std::string(2, '\0'));
    EXPECT_EQ(entries[1].kind, 1u);
    EXPECT_EQ(entries[1].payload.size(), 286u);
    EXPECT_STREQ(entries[1].payload.c_str(), "trellis_test_types");
}

TEST(manifest, lines_have_one_form_and_their_order) {
    const auto lines = manifest_lines();
    ASSERT_EQ(lines.size(), 224u);
    EXPECT_EQ(lines[0], "# trellis_test_types.minime");
    std::map<std::string, int> kinds;
    std::vector<std::string> message_luids, table_luids;
    std::set<std::string> luids, hashes;
    std::vector<std::string> order;
    for (std::size_t i = 1; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        ASSERT_EQ(line.size(), 79u) << line;
        EXPECT_EQ(line[32], ':');
        EXPECT_EQ(line[72], ':');
        EXPECT_EQ(line[78], 'N');
        EXPECT_EQ(line.substr(0, 32).find_first_not_of("0123456789abcdef"), std::string::npos);
        EXPECT_EQ(line.substr(33, 32).find_first_not_of("0123456789abcdef"), std::string::npos);
        const std::string kind = line.substr(65, 4);
        ++kinds[kind];
        luids.insert(line.substr(0, 32));
        hashes.insert(line.substr(33, 32));
        const bool in_front = kind == "enum" || kind == "flag" || kind == "type";
        order.push_back(in_front ? "type" : kind == "mess" ? "mess" : "table");
        if (kind == "mess") message_luids.push_back(line.substr(0, 32));
        if (kind == "tabl" || kind == "trec") table_luids.push_back(line.substr(0, 32));
        if (!in_front) {
            EXPECT_EQ(line.substr(69, 10), "000:00000N") << line;
        } else {
            EXPECT_EQ(std::stoi(line.substr(73, 5)) % 8, 0) << line;
        }
    }
    EXPECT_EQ(kinds, (std::map<std::string, int>{
                         {"enum", 15}, {"flag", 3}, {"mess", 8}, {"tabl", 47}, {"trec", 47}, {"type", 103}}));
    EXPECT_EQ(luids.size(), 223u) << "no two types share an identity";
    EXPECT_EQ(hashes.size(), 223u);
    EXPECT_TRUE(std::is_sorted(message_luids.begin(), message_luids.end()));
    EXPECT_TRUE(std::is_sorted(table_luids.begin(), table_luids.end()));
    EXPECT_EQ(std::unique(order.begin(), order.end()) - order.begin(), 3) << "three runs";
}

// ---- Counters and exports --------------------------------------------------------------------------------------

TEST(call_counters, one_per_exported_function_outside_the_file) {
    const elf_section* counters = library().section(".spoor_counters");
    ASSERT_NE(counters, nullptr);
    EXPECT_TRUE(counters->loaded);
    EXPECT_TRUE(counters->writable);
    EXPECT_TRUE(counters->bytes.empty()) << "zero-filled by the loader";
    std::set<std::string> functions;
    for (const elf_symbol& each : library().symbols)
        if (each.defined && each.function) functions.insert(each.name);
    EXPECT_EQ(counters->size, 8 * functions.size());
}

TEST(exports, data_has_the_size_that_others_count_on) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the address sanitizer pads data";
#endif
    std::size_t type_infos = 0, records = 0;
    for (const elf_symbol& each : library().symbols) {
        const std::string& name = each.name;
        const auto ends_with = [&name](const std::string& ending) {
            return name.size() > ending.size() && name.substr(name.size() - ending.size()) == ending;
        };
        if (!each.defined || each.function) continue;
        if (ends_with("_type_info_internal")) {
            ++type_infos;
            EXPECT_EQ(each.size, 272u) << name;
        } else if (ends_with("_table_vft")) {
            ++records;
            EXPECT_EQ(each.size, 392u) << name;
        } else if (ends_with("_luid_text")) {
            EXPECT_EQ(each.size, 33u) << name;
        } else if (ends_with("_luid")) {
            EXPECT_EQ(each.size, 16u) << name;
        } else if (name.rfind("table_", 0) == 0 && ends_with("_name")) {
            EXPECT_EQ(each.size, name.size() - std::strlen("_name") + 1) << name;
        }
    }
    EXPECT_EQ(type_infos, 223u);
    EXPECT_EQ(records, 70u);
    const std::map<std::string, std::uint64_t> sizes = {{"trellis_test_types_table_lut", 70 * 392},
                                                        {"trellis_test_types_bundle_registered_handler", 8},
                                                        {"g_loom_trellis_test_types_trace_module_id", 2},
                                                        {"g_loom_trellis_test_types_stub_trace_module_id", 2}};
    for (const auto& [name, size] : sizes) {
        const elf_symbol* symbol = library().symbol(name);
        ASSERT_NE(symbol, nullptr) << name;
        EXPECT_EQ(symbol->size, size) << name;
    }
}

TEST(exports, nothing_of_the_library_s_inside_is_seen) {
    for (const elf_symbol& each : library().symbols)
        EXPECT_FALSE(each.defined && each.name.rfind("_Z", 0) == 0) << each.name;
}

TEST(exports, nothing_depends_on_what_bundles_must_not_need) {
    for (const elf_symbol& each : library().symbols) {
        EXPECT_EQ(each.name.find("BZ2_"), std::string::npos) << each.name;
        EXPECT_EQ(each.name.find("__cxa_throw"), std::string::npos) << each.name;
        EXPECT_EQ(each.name.find("__gxx_personality"), std::string::npos) << each.name;
    }
}

} // namespace
} // namespace trellis::test
