// The tool on a small bundle that it has never heard of: everything that works, and what changes show.
#include "program.h"

namespace tool_test {
namespace {

class greenhouse : public tool_fixture {};

TEST_F(greenhouse, tables_tells_what_was_imported) {
    const std::string db = greenhouse_database("a.db");
    const std::string tables = loom_good({"tables", db}).out;
    EXPECT_TRUE(contains(tables, "bed_tbl"));
    EXPECT_TRUE(contains(tables, "3 records  greenhouse"));
}

TEST_F(greenhouse, walk_follows_the_key_and_not_the_file) {
    const std::string db = database_of("a.db", bed(2, 1) + bed(1, 300) + bed(1, 20) + bed(1, 3));
    EXPECT_EQ(loom_good({"walk", db, "bed_tbl"}).out,
              "house=1 row=3\nhouse=1 row=20\nhouse=1 row=300\nhouse=2 row=1\n");
}

TEST_F(greenhouse, find_is_exact_and_nearest_goes_on) {
    const std::string db = greenhouse_database("a.db");
    EXPECT_EQ(loom_good({"find", db, "bed_tbl", "row=2", "house=1"}).out, "house=1 row=2\n");
    EXPECT_EQ(loom_good({"find", db, "bed_tbl", "house=1", "row=3", "--nearest"}).out, "house=2 row=1\n");
    expect_refused({"find", db, "bed_tbl", "house=1", "row=3"}, {"has no record with house=1 row=3"});
    EXPECT_EQ(loom({"find", db, "bed_tbl", "house=9", "row=1", "--nearest"}).status, 1);
}

TEST_F(greenhouse, show_prints_text_with_braces_under_their_names) {
    const std::string db = greenhouse_database("a.db");
    EXPECT_EQ(loom_good({"show", db, "bed_tbl", "house=1", "row=1"}).out,
              "record@bed_tbl: {\n"
              "  bed@bed: {\n"
              "    plant@loom_vstring:Solanum lycopersicum\n"
              "    state@growth:BED_GROWING\n"
              "    sown@calendar_time:2025-02-10T09:00:00Z\n"
              "    sensor@ipv6_addr:2001:db8::1:1\n"
              "    humidity_len@u_int8:2\n"
              "    humidity[0]@u_int8:61\n"
              "    humidity[1]@u_int8:58\n"
              "  }\n"
              "  bed_key@bed_key: {\n"
              "    house@u_int8:1\n"
              "    row@u_int16:1\n"
              "  }\n"
              "}\n");
}

TEST_F(greenhouse, show_prints_xml_that_import_reads) {
    const std::string db = greenhouse_database("a.db");
    const std::string xml = loom_good({"show", db, "bed_tbl", "house=1", "row=2", "--xml"}).out;
    EXPECT_TRUE(contains(xml, "<plant>Lactuca sativa &amp; Raphanus sativus</plant>"));
    EXPECT_TRUE(contains(xml, "<BED_SOWN/>"));
    const std::string other = database_of("b.db", xml);
    EXPECT_EQ(loom_good({"show", other, "bed_tbl", "house=1", "row=2", "--xml"}).out, xml);
}

TEST_F(greenhouse, bytes_are_annotated_without_gaps) {
    const std::string db = greenhouse_database("a.db");
    running_program compiler(directory(), {TRELLISC_PROGRAM, "json", GREENHOUSE_SCHEMA});
    const std::string model = written("greenhouse.json", compiler.wait().out);
    const std::vector<std::string> lines =
        lines_of(loom_good({"show", db, "bed_tbl", "house=1", "row=1", "--bytes", "--schema", model}).out);
    ASSERT_GT(lines.size(), 20u);
    // Each line begins where the one before ended, up to the length that the header tells.
    std::size_t expected = 0;
    std::string all;
    for (std::size_t i = 1; i < lines.size(); ++i) {
        ASSERT_EQ(std::stoul(lines[i].substr(0, 6)), expected) << lines[i];
        std::istringstream digits(lines[i].substr(8, 24));
        for (std::string byte; digits >> byte;)
            ++expected;
        all += lines[i] + "\n";
    }
    EXPECT_TRUE(contains(all, "header length: " + std::to_string(expected) + " bytes"));
    for (const char* part :
         {"luid: of table bed_tbl", "bed: bed, variant 0", "plant: Solanum lycopersicum  (loom_vstring)",
          "state: BED_GROWING  (growth)", "humidity: 61 58", "row: 1  (u_int16)"})
        EXPECT_TRUE(contains(all, part));
    EXPECT_FALSE(contains(all, "not explained"));
}

TEST_F(greenhouse, what_goes_out_comes_back_equal) {
    const std::string db = greenhouse_database("a.db"), other = copy_through_xml(db, "b.db");
    EXPECT_EQ(loom_good({"compare", db, other}).out, "equal: 3 records of 1 tables\n");
    EXPECT_EQ(loom_good({"export", other}).out, contents_of(file("b.db.xml")));
}

TEST_F(greenhouse, values_survive_the_way_through_xml) {
    // Blanks only, characters of markup, a carriage return, bytes that XML cannot hold.
    const char* plants[] = {"   ", "&lt;b&gt; &amp; &quot;c&quot;", "a&#13;&#10;b&#9;", "\xC3\xA4\xE2\x82\xAC",
                            ""};
    std::string xml = bed(1, 99, "<plant encoding=\"hex\">00ff01</plant>");
    int row = 0;
    for (const char* plant : plants)
        xml += bed(1, ++row, "<plant>" + std::string(plant) + "</plant>");
    const std::string db = database_of("a.db", xml), other = copy_through_xml(db, "b.db");
    EXPECT_EQ(loom_good({"compare", db, other}).out, "equal: 6 records of 1 tables\n");
}

TEST_F(greenhouse, compare_names_each_difference) {
    const std::string db = greenhouse_database("a.db");
    std::string beds = contents_of(BEDS_FILE);
    beds.replace(beds.find("<humidity>39"), 12, "<humidity>40");
    const std::size_t last = beds.rfind("<row>1</row>");
    beds.replace(last, 12, "<row>7</row>");
    const std::string other = imported("b.db", written("beds.xml", beds));
    const outcome compared = loom({"compare", db, other});
    EXPECT_EQ(compared.status, 1);
    EXPECT_TRUE(contains(compared.out, "bed_tbl house=1 row=2: differs"));
    EXPECT_TRUE(contains(compared.out, "bed_tbl house=2 row=1: only in " + db));
    EXPECT_TRUE(contains(compared.out, "bed_tbl house=2 row=7: only in " + other));
    EXPECT_TRUE(contains(compared.out, "3 differences, 1 records are equal"));
}

TEST_F(greenhouse, compare_sees_a_missing_table) {
    const std::string db = greenhouse_database("a.db"), other = file("b.db");
    loom_good({"create", other});
    EXPECT_EQ(loom({"compare", db, other}).status, 1);
    EXPECT_EQ(loom({"compare", other, db}).status, 1);
    EXPECT_EQ(loom({"compare", db, db}).status, 0);
}

TEST_F(greenhouse, compare_reads_a_copy_of_the_file) {
    const std::string db = greenhouse_database("a.db"), copy = file("copy.db");
    std::filesystem::copy_file(db, copy); // which wants the same addresses
    EXPECT_EQ(loom_good({"compare", db, copy}).out, "equal: 3 records of 1 tables\n");
}

TEST_F(greenhouse, named_and_numbered_tables_sources_and_tenants_come_back) {
    std::string beds;
    for (const char* attributes :
         {"", " table=\"trial\"", " id=\"7\"", " src=\"5\"", " src=\"255\"", " tenant=\"3\""})
        beds += bed(1, 1, "", attributes);
    const std::string db = database_of("a.db", beds);
    const std::string tables = loom_good({"tables", db}).out;
    EXPECT_TRUE(contains(tables, "bed_tbl:trial"));
    EXPECT_TRUE(contains(tables, "bed_tbl#7"));
    EXPECT_EQ(loom_good({"walk", db, "bed_tbl"}).out,
              "house=1 row=1\nhouse=1 row=1  (source 5)\nhouse=1 row=1  (shadow)\n");
    EXPECT_EQ(loom_good({"walk", db, "bed_tbl", "--tenant", "3"}).out, "house=1 row=1  (tenant 3)\n");
    EXPECT_EQ(loom_good({"walk", db, "bed_tbl:trial"}).out, "house=1 row=1\n");
    EXPECT_EQ(loom_good({"compare", db, copy_through_xml(db, "b.db")}).out, "equal: 6 records of 3 tables\n");
}

TEST_F(greenhouse, the_example_program_reads_the_same_file) {
    const std::string db = greenhouse_database("a.db");
    running_program watering(directory(), {WATERING_PROGRAM, db, "50"});
    EXPECT_EQ(watering.wait().out, "house 1 row 2: 39 %\n");
}

TEST_F(greenhouse, bundles_and_types_come_from_the_library) {
    const std::string bundles = loom_good({"bundles", "--bundle", GREENHOUSE_LIBRARY}).out;
    EXPECT_TRUE(contains(bundles, "greenhouse\n"));
    EXPECT_TRUE(contains(bundles, "2 records, 1 enumeration, 1 table"));
    const std::string types = loom_good({"types", "--bundle", GREENHOUSE_LIBRARY}).out;
    for (const char* name : {"bed", "bed_key", "growth", "bed_tbl", "bed_tbl_record"})
        EXPECT_TRUE(contains(types, std::string("  ") + name + "\n"));
    EXPECT_EQ(lines_of(types).size(), 6u);
    EXPECT_EQ(lines_of(loom_good({"types", "--bundle", GREENHOUSE_LIBRARY, "--kind", "table"}).out).size(), 2u);
}

TEST_F(greenhouse, a_trace_file_tells_what_happened) {
    const std::string db = greenhouse_database("a.db"), trace = file("import.trace");
    EXPECT_EQ(loom({"import", db, BEDS_FILE, "--trace", trace}).status, 1);
    const std::string lines = loom_good({"trace", trace}).out;
    EXPECT_TRUE(contains(lines, "error loom_greenhouse: bed_tbl insert record exists for bed_key"));
}

} // namespace
} // namespace tool_test
