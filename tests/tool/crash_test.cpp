// An import whose process is killed leaves all of its records or none, and the database sound.
#include "program.h"

#include <chrono>
#include <thread>

namespace tool_test {
namespace {

class crash : public tool_fixture {};

TEST_F(crash, a_killed_import_leaves_nothing_behind) {
    const std::string db = greenhouse_database("a.db");
    std::string xml = "<beds>";
    constexpr int beds = 4000;
    for (int row = 1; row <= beds; ++row)
        xml += bed(9, row, "<plant>plant " + std::to_string(row) + "</plant>");
    const std::string many = written("many.xml", xml + "</beds>");

    const auto begin = std::chrono::steady_clock::now();
    imported("trial.db", many);
    const auto whole = std::chrono::steady_clock::now() - begin;

    unsigned undone = 0, done = 0;
    for (int part = 1; part <= 12; ++part) {
        running_program import(directory(), {LOOM_PROGRAM, "import", db, many});
        std::this_thread::sleep_for(whole * part / 12);
        import.kill();
        import.wait();
        const std::size_t records = lines_of(loom_good({"walk", db, "bed_tbl"}).out).size();
        ASSERT_TRUE(records == 3 || records == 3 + beds) << records << " records after a kill";
        ++(records == 3 ? undone : done);
        if (records != 3) break; // all of it came through before the kill
    }
    EXPECT_GT(undone, 0u);
    // And what was undone can be done.
    if (done == 0) loom_good({"import", db, many});
    EXPECT_EQ(lines_of(loom_good({"walk", db, "bed_tbl"}).out).size(), 3u + beds);
}

TEST_F(crash, readers_see_whole_imports_only) {
    const std::string db = greenhouse_database("a.db");
    std::string xml = "<beds>";
    constexpr int beds = 1500;
    for (int row = 1; row <= beds; ++row)
        xml += bed(9, row);
    running_program import(directory(), {LOOM_PROGRAM, "import", db, written("many.xml", xml + "</beds>")});
    std::size_t records = 0;
    for (int i = 0; i < 1000 && records != 3 + beds; ++i) {
        records = lines_of(loom_good({"walk", db, "bed_tbl"}).out).size();
        ASSERT_TRUE(records == 3 || records == 3 + beds) << records << " records during an import";
    }
    EXPECT_EQ(import.wait().status, 0);
}

} // namespace
} // namespace tool_test
