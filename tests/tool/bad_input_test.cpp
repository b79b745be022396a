// What the tool says to input that is wrong: a message with the place, a cure, a status that is not 0, and a
// database that is what it was before.
#include "program.h"

#include <fstream>

namespace fs = std::filesystem;

namespace tool_test {
namespace {

// ------------------------------------------------------------------------------------------------ files to import

struct wrong_file {
    const char* name;
    const char* contents;
    std::vector<const char*> said; // parts of the message
};

std::ostream& operator<<(std::ostream& out, const wrong_file& each) { return out << each.name; }

class wrong_files : public tool_fixture, public testing::WithParamInterface<wrong_file> {
  protected:
    void expect_refused_whole(const std::string& contents) {
        const std::string db = greenhouse_database("a.db");
        const std::string before = contents_of(db);
        const outcome import = loom({"import", db, written("wrong.xml", contents)});
        EXPECT_EQ(import.status, 1);
        EXPECT_TRUE(contains(import.err, "loom: cure: "));
        for (const char* part : GetParam().said)
            EXPECT_TRUE(contains(import.err, part));
        EXPECT_EQ(import.out, "");
        EXPECT_TRUE(contents_of(db) == before) << "the file of the database has changed";
    }
};

TEST_P(wrong_files, are_refused_and_nothing_changes) { expect_refused_whole(GetParam().contents); }

// The good record in front of the bad one shows that all of an import is undone.
#define GOOD_BED "<bed_tbl><bed/><bed_key><house>8</house><row>1</row></bed_key></bed_tbl>"

INSTANTIATE_TEST_SUITE_P(
    import, wrong_files,
    testing::Values(
        wrong_file{"cut_short", "<beds>\n<bed_tbl>\n<bed><plant>Sol", {"wrong.xml:3:", "not well-formed"}},
        wrong_file{"cut_between_records", "<beds>\n" GOOD_BED "\n", {"wrong.xml:", "not well-formed"}},
        wrong_file{"no_xml", "house 1 row 2\n", {"wrong.xml:", "not well-formed"}},
        wrong_file{"empty", "", {"wrong.xml"}},
        wrong_file{"wrong_closing_tag", "<beds>\n<bed_tbl></bed>\n</beds>", {"wrong.xml:2:", "not well-formed"}},
        wrong_file{"no_records", "<beds></beds>", {"holds no records"}},
        wrong_file{"unknown_table",
                   "<beds>\n" GOOD_BED "\n<bench_tbl/>\n</beds>",
                   {"wrong.xml:3: bench_tbl", "no loaded bundle has a table of this name"}},
        wrong_file{"text_beside_records", "<beds>" GOOD_BED "\nwet\n</beds>", {"wrong.xml:2: the text 'wet'"}},
        wrong_file{"two_documents", "<beds>" GOOD_BED "</beds>\n<beds/>", {"wrong.xml:2:1:", "A second element"}},
        wrong_file{"duplicate_in_the_file",
                   "<beds>" GOOD_BED GOOD_BED "</beds>",
                   {"error 17 (File exists)", "house=8 row=1",
                    "trace: error loom_greenhouse: bed_tbl insert record exists for bed_key"}}),
    [](const auto& info) { return info.param.name; });

class wrong_beds : public wrong_files {};

TEST_P(wrong_beds, are_refused_and_nothing_changes) {
    expect_refused_whole("<beds>" GOOD_BED "\n" + std::string(GetParam().contents) + "</beds>");
}

// The key and the attributes of a bed that nobody has yet.
#define KEY "<bed_key><house>9</house><row>9</row></bed_key>"
#define BED(inside) "<bed_tbl><bed>" inside "</bed>" KEY "</bed_tbl>"

INSTANTIATE_TEST_SUITE_P(
    import, wrong_beds,
    testing::Values(
        wrong_file{"misspelt_attribute", BED("<plannt>x</plannt>"), {"no place for the element bed/plannt"}},
        wrong_file{"misspelt_payload",
                   "<bed_tbl><bad><plant>x</plant></bad>" KEY "</bed_tbl>",
                   {"no place for the element bad"}},
        wrong_file{"misspelt_member",
                   BED("<state><BED_FALLOWED/></state>"),
                   {"no place for the element bed/state/BED_FALLOWED"}},
        wrong_file{
            "member_as_text", BED("<state>BED_SOWN</state>"), {"no place for the text 'BED_SOWN' in bed/state"}},
        wrong_file{"text_beside_attributes", BED("wet<plant>x</plant>"), {"no place for the text 'wet' in bed"}},
        wrong_file{"text_beside_the_payload",
                   "<bed_tbl>wet<bed/>" KEY "</bed_tbl>",
                   {"no place for the text 'wet' beside the elements"}},
        wrong_file{"unknown_attribute",
                   "<bed_tbl colour=\"red\"><bed/>" KEY "</bed_tbl>",
                   {"no meaning for the attribute colour"}},
        wrong_file{"attribute_of_a_value",
                   BED("<plant lang=\"la\">Beta</plant>"),
                   {"no meaning for the attribute lang of bed/plant"}},
        wrong_file{"count_of_other_elements",
                   BED("<humidity_len>5</humidity_len><humidity>39</humidity>"),
                   {"the number 5 of bed/humidity_len becomes 1"}},
        wrong_file{"unknown_reference",
                   BED("<plant>Beta&nbsp;vulgaris</plant>"),
                   {"wrong.xml:2: bed_tbl: &nbsp; refers to nothing"}},
        wrong_file{"number_too_large",
                   "<bed_tbl><bed/><bed_key><house>256</house></bed_key></bed_tbl>",
                   {"bed_key/house", "none that it can have"}},
        wrong_file{"no_number",
                   "<bed_tbl><bed/><bed_key><house>one</house></bed_key></bed_tbl>",
                   {"bed_key/house", "none that it can have"}},
        wrong_file{"no_address", BED("<sensor>2001::db8::1</sensor>"), {"bed/sensor", "none that it can have"}},
        wrong_file{"no_time", BED("<sown>yesterday</sown>"), {"bed/sown", "none that it can have"}},
        wrong_file{"no_tenant", "<bed_tbl tenant=\"70000\"><bed/></bed_tbl>", {"'70000' is no number"}},
        wrong_file{"no_source", "<bed_tbl src=\"x\"><bed/></bed_tbl>", {"'x' is no number"}},
        wrong_file{"duplicate_in_the_database",
                   "<bed_tbl><bed/><bed_key><house>1</house><row>2</row></bed_key></bed_tbl>",
                   {"error 17 (File exists)", "house=1 row=2", "bed_tbl insert record exists for bed_key"}}),
    [](const auto& info) { return info.param.name; });

// --------------------------------------------------------------------------------------------------- databases

class bad_input : public tool_fixture {
  protected:
    /// All commands on a database say the same.
    void expect_everywhere(const std::string& db, const std::string& said) {
        const std::vector<std::vector<std::string>> commands = {{"tables", db},
                                                                {"walk", db, "bed_tbl"},
                                                                {"export", db},
                                                                {"import", db, BEDS_FILE},
                                                                {"compare", db, greenhouse_database("good.db")},
                                                                {"find", db, "bed_tbl", "house=1", "row=1"}};
        for (const auto& words : commands)
            expect_refused(words, {said, db});
    }
};

TEST_F(bad_input, no_database) { expect_everywhere(file("none.db"), "there is no such file"); }

TEST_F(bad_input, another_kind_of_file) {
    expect_everywhere(written("text.db", std::string(8192, 'x')), "is no database");
}

TEST_F(bad_input, an_empty_file) { expect_everywhere(written("empty.db", ""), "is no database"); }

TEST_F(bad_input, a_database_that_was_cut) {
    const std::string db = greenhouse_database("a.db");
    fs::resize_file(db, fs::file_size(db) / 2);
    expect_everywhere(db, "cut short");
}

TEST_F(bad_input, a_directory_for_a_file) {
    expect_everywhere(directory().string(), "Is a directory");
    expect_refused({"import", greenhouse_database("a.db"), directory().string()},
                   {"is no file of text", "loom: cure: "});
    expect_refused({"tables", directory().string()}, {"loom: cure: "});
    expect_refused({"create", file("no/such.db")}, {"loom: cure: "});
}

TEST_F(bad_input, an_import_that_fails_late_gives_its_room_back) {
    const std::string db = greenhouse_database("a.db"), before = contents_of(db);
    std::string xml = "<beds>";
    for (int row = 1; row <= 20000; ++row) // more than the file holds
        xml += bed(9, row);
    EXPECT_EQ(loom({"import", db, written("many.xml", xml + bed(1, 1) + "</beds>")}).status, 1);
    EXPECT_TRUE(contents_of(db) == before);
}

TEST_F(bad_input, who_only_reads_leaves_the_file_as_it_is) {
    const std::string db = greenhouse_database("a.db"), other = greenhouse_database("b.db");
    const std::string before = contents_of(db);
    const std::vector<std::vector<std::string>> commands = {
        {"tables", db},
        {"walk", db, "bed_tbl", "--text"},
        {"find", db, "bed_tbl", "house=1", "row=2"},
        {"find", db, "bed_tbl", "house=7", "row=7"},
        {"show", db, "bed_tbl", "house=1", "row=2", "--xml"},
        {"show", db, "bed_tbl", "house=1", "row=two"},
        {"export", db},
        {"compare", db, other},
        {"send", db, "bed_tbl", "--exec", LOOM_PROGRAM, "receive"},
    };
    for (const auto& words : commands) {
        loom(words);
        EXPECT_TRUE(contents_of(db) == before) << testing::PrintToString(words);
    }
}

TEST_F(bad_input, a_command_that_does_not_greet) {
    const std::string db = greenhouse_database("a.db");
    for (const char* command : {"true", "no_such_command"})
        expect_refused({"send", db, "bed_tbl", "--exec", command},
                       {"the receiver's greeting", "loom: cure: let 'loom receive'"});
}

TEST_F(bad_input, a_database_without_its_bundle) {
    const std::string db = greenhouse_database("a.db");
    fs::create_directories(directory() / "bin");
    fs::copy_file(LOOM_PROGRAM, directory() / "bin" / "loom");
    const std::string lonely = file("bin/loom");
    const outcome walk = running_program(directory(), {lonely, "walk", db, "bed_tbl"}).wait();
    EXPECT_EQ(walk.status, 1);
    EXPECT_TRUE(contains(walk.err, "needs the bundle greenhouse"));
    EXPECT_TRUE(contains(walk.err, "--bundle"));
    // What does not look into records works all the same, and the cure helps.
    EXPECT_EQ(running_program(directory(), {lonely, "tables", db}).wait().status, 0);
    const outcome cured =
        running_program(directory(), {lonely, "walk", db, "bed_tbl", "--bundle", GREENHOUSE_LIBRARY}).wait();
    EXPECT_EQ(lines_of(cured.out).size(), 3u) << cured.err;
}

TEST_F(bad_input, a_file_that_is_no_bundle) {
    expect_refused({"types", "--bundle", file("libnone.so")}, {"there is no such bundle"});
    expect_refused({"types", "--bundle", written("libtext.so", "text")}, {": cannot be loaded: "});
    expect_refused({"types", "--bundle", "meadow"}, {"bundle meadow is not in"});
}

TEST_F(bad_input, create_never_overwrites) {
    const std::string db = greenhouse_database("a.db");
    expect_refused({"create", db}, {"is there already"});
    EXPECT_EQ(lines_of(loom_good({"walk", db, "bed_tbl"}).out).size(), 3u);
}

TEST_F(bad_input, an_unknown_table_is_told_with_those_that_exist) {
    expect_refused({"walk", greenhouse_database("a.db"), "bench_tbl"},
                   {"there is no table bench_tbl", "it holds bed_tbl"});
}

TEST_F(bad_input, an_output_that_cannot_be_written) {
    const std::string db = greenhouse_database("a.db");
    expect_refused({"export", db, "--output", file("no/such/directory.xml")}, {});
    const int full = ::system(("'" LOOM_PROGRAM "' export " + db + " >/dev/full 2>" + file("full.err")).c_str());
    EXPECT_NE(full, 0);
    EXPECT_TRUE(contains(contents_of(file("full.err")), "cannot be written"));
}

// --------------------------------------------------------------------------------------------------------- keys

TEST_F(bad_input, keys_are_told_with_what_they_consist_of) {
    const std::string db = greenhouse_database("a.db");
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"house=1"}, "wants row"},
        {{"house=1", "row=1", "shelf=2"}, "has no attribute shelf"},
        {{"house=1", "house=2", "row=1"}, "attribute house is given twice"},
        {{"house"}, "'house' is no attribute=value"},
        {{"house=1", "row=70000"}, "none that it can have"},
        {{"house=first", "row=1"}, "none that it can have"},
    };
    for (const auto& [key, said] : cases) {
        std::vector<std::string> words = {"find", db, "bed_tbl"};
        words.insert(words.end(), key.begin(), key.end());
        const outcome result = loom(words);
        EXPECT_NE(result.status, 0) << said;
        EXPECT_TRUE(contains(result.err, said));
    }
    EXPECT_TRUE(
        contains(loom({"find", db, "bed_tbl", "house=1"}).err, "the key of bed_tbl is: house=... row=..."));
}

// -------------------------------------------------------------------------------------------------------- traces

TEST_F(bad_input, traces_that_are_none_or_cut) {
    expect_refused({"trace", file("none.trace")}, {});
    expect_refused({"trace", written("text.trace", "no trace at all, but a text of some length")}, {});
    const std::string db = greenhouse_database("a.db"), trace = file("a.trace");
    loom({"import", db, BEDS_FILE, "--trace", trace});
    const std::size_t lines = lines_of(loom_good({"trace", trace}).out).size();
    fs::resize_file(trace, fs::file_size(trace) - 5);
    // A process that was killed leaves its last record unfinished; those before it are whole.
    EXPECT_EQ(lines_of(loom({"trace", trace}).out).size(), lines - 1);
}

// --------------------------------------------------------------------------------------------------------- usage

TEST_F(bad_input, wrong_usage_has_a_status_of_its_own) {
    const std::vector<std::vector<std::string>> wrong = {{},
                                                         {"plant"},
                                                         {"walk"},
                                                         {"walk", "a.db"},
                                                         {"tables", "a.db", "b"},
                                                         {"tables", "--depth", "a.db"},
                                                         {"walk", "a.db", "t", "--src"},
                                                         {"types", "--kind", "shape"},
                                                         {"show", "a.db", "t", "k=1", "--text", "--xml"},
                                                         {"receive", "--xml", "--into", "a.db"},
                                                         {"send", "a.db", "t"}};
    for (const auto& words : wrong)
        EXPECT_EQ(loom(words).status, 2) << testing::PrintToString(words);
    EXPECT_EQ(loom({"help"}).status, 0);
    EXPECT_EQ(loom({"help", "walk"}).status, 0);
    EXPECT_EQ(loom({"help", "help"}).status, 0);
    EXPECT_EQ(loom({"--version"}).status, 0);
    EXPECT_EQ(loom({"walk", "--help"}).status, 0);
}

} // namespace
} // namespace tool_test
