// trellisc as its users call it: commands, output, exit status.
#include "schemas.h"

#include <array>
#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

namespace trellis::schema::testing {
namespace {

struct ended {
    int status;
    std::string output; // both streams
};
ended trellisc(const std::string& arguments) {
    FILE* pipe = popen((std::string(TRELLISC) + " " + arguments + " 2>&1").c_str(), "r");
    EXPECT_NE(pipe, nullptr);
    std::string output;
    std::array<char, 4096> block;
    for (std::size_t n; (n = fread(block.data(), 1, block.size(), pipe)) > 0;)
        output.append(block.data(), n);
    return {WEXITSTATUS(pclose(pipe)), output};
}

class Program : public ::testing::Test {
  protected:
    void SetUp() override {
        directory_ = std::filesystem::temp_directory_path() / ("trellisc_test_" + std::to_string(getpid()));
        std::filesystem::create_directories(directory_);
    }
    void TearDown() override { std::filesystem::remove_all(directory_); }
    std::string file(const std::string& name, const std::string& text) {
        const std::filesystem::path path = directory_ / name;
        std::ofstream(path, std::ios::binary) << text;
        return path.string();
    }
    std::filesystem::path directory_;
};

const char* const small = "bundle s\nrecord r {\n    x: u_int8\n}\ntable t of r keyed by x\n";

TEST_F(Program, ChecksTheCatalogue) {
    const ended run = trellisc("check " TRELLIS_SCHEMA_DIR "/*.trellis");
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(run.output.starts_with(
        "bundle trellis_test_types: 103 records, 15 enums, 3 flag sets, 47 tables, 8 messages;"))
        << run.output;
}

TEST_F(Program, TellsMistakesAndEndsWithOne) {
    const std::string path = file("bad.trellis", "bundle s\nrecord r {\n    x: u_int9\n}\n");
    for (const char* command : {"check ", "layout ", "json ", "names ", "generate --out /nonexistent/out "}) {
        const ended run = trellisc(command + path);
        EXPECT_EQ(run.status, 1) << command;
        EXPECT_TRUE(
            run.output.starts_with(path + ":3:8: there is no type \"u_int9\"; write u_int8, or declare it"))
            << run.output;
        EXPECT_TRUE(run.output.ends_with("1 mistake\n")) << run.output;
    }
}

TEST_F(Program, WrongUseEndsWithTwo) {
    for (const char* arguments :
         {"", "bake", "check", "check /nonexistent/file", "compare one", "generate x.trellis", "generate --out",
          "generate --out d --units 0 x", "generate --out d --units many x", "check /"})
        EXPECT_EQ(trellisc(arguments).status, 2) << arguments;
    EXPECT_EQ(trellisc("help").status, 0);
}

TEST_F(Program, FilesThatAreNoSchemaAreToldOnce) {
    const std::string zero = file("zero.trellis", std::string("bundle z\nrec\0rd r {\n", 20) + "}\n");
    EXPECT_EQ(trellisc("check " + zero).output,
              zero + ":2:4: a byte 0 stands here: this is no text; name a file of schema text\n1 mistake\n");
    const std::string cut = file("cut.json", "{\n  \"bundle\": \"s\",\n  \"records\": [");
    EXPECT_EQ(trellisc("check " + cut).output,
              cut + ":3:15: this is no JSON; write the file with trellisc json\n1 mistake\n");
    const std::string huge = file("huge.json", "{\"bundle\": \"s\",\n \"records\": [7e7777]}");
    EXPECT_EQ(trellisc("check " + huge).output,
              huge + ":2:14: the number is too large; write the file with trellisc json\n1 mistake\n");
    EXPECT_EQ(trellisc("check " + file("marked.trellis", std::string("\xef\xbb\xbf") + small)).status, 0);
}

TEST_F(Program, WhatCannotBeReadOrWrittenIsToldWithItsReason) {
    const std::string path = file("s.trellis", small), folder = directory_.string();
    EXPECT_EQ(trellisc("check " + folder).output,
              "trellisc: cannot read " + folder + ": it is a directory; name the files of the schema\n");
    EXPECT_EQ(trellisc("check " + folder + "/none").output,
              "trellisc: cannot read " + folder +
                  "/none: No such file or directory; name the files of the schema\n");
    EXPECT_TRUE(trellisc("check --fast " + path).output.starts_with("trellisc: there is no option --fast here\n"));
    const ended run = trellisc("generate --out " + path + " " + path);
    EXPECT_TRUE(run.output.starts_with("trellisc: cannot write " + path)) << run.output;
    EXPECT_NE(run.output.find(": Not a directory; name a directory behind --out"), std::string::npos)
        << run.output;
}

TEST_F(Program, OutputThatCannotBeWrittenEndsWithTwo) {
    const std::string path = file("s.trellis", small);
    EXPECT_EQ(trellisc("json " + path + " > /dev/full").status, 2);
    EXPECT_EQ(trellisc("generate --out /dev/null/out " + path).status, 2);
}

TEST_F(Program, PrintsLayoutNamesAndJson) {
    const std::string path = file("s.trellis", small);
    EXPECT_EQ(trellisc("layout " + path).output, "record r, base size 24\n"
                                                 "  variant 0: used 12, size 24, slop 12, tracking 1\n"
                                                 "   offset  tracks  since  attribute\n"
                                                 "       11       0      0  x  u_int8\n\n");
    EXPECT_TRUE(trellisc("names " + path).output.starts_with("r_create\nr_create_cr\n"));
    const std::string json = file("s.json", trellisc("json " + path).output);
    EXPECT_EQ(trellisc("json " + json).output, trellisc("json " + path).output);
}

TEST_F(Program, ComparesTwoVersions) {
    const std::string before = file("s.json", trellisc("json " + file("s.trellis", small)).output);
    const std::string same = file("s.trellis", small);
    EXPECT_EQ(trellisc("compare " + before + " " + same).status, 0);
    const std::string grown =
        file("grown.trellis",
             "bundle s\nrecord r {\n    x: u_int8\n  since 1\n    y: u_int8\n}\ntable t of r keyed by x\n");
    const ended fine = trellisc("compare " + before + " " + grown);
    EXPECT_EQ(fine.status, 0);
    EXPECT_EQ(fine.output, grown + ":5:5: fine: the attribute \"y\" of \"r\" is new in variant 1\n");
    const std::string broken =
        file("broken.trellis", "bundle s\nrecord r {\n    x: u_int16\n}\ntable t of r keyed by x\n");
    const ended breaks = trellisc("compare " + before + " " + broken);
    EXPECT_EQ(breaks.status, 1);
    EXPECT_NE(
        breaks.output.find(broken + ":3:5: breaks: the attribute \"x\" of \"r\" was u_int8 and is u_int16; "),
        std::string::npos)
        << breaks.output;
    EXPECT_EQ(trellisc("compare " TRELLIS_SCHEMA_DIR " " TRELLIS_SCHEMA_DIR).status, 0);
}

TEST_F(Program, GeneratesTheBundleThatWasAskedFor) {
    const std::string path = file("s.trellis", small), out = (directory_ / "out").string();
    const ended other = trellisc("generate --bundle t --out " + out + " " + path);
    EXPECT_EQ(other.status, 1);
    EXPECT_TRUE(other.output.starts_with(path + ":1:8: the bundle is called \"s\" and not \"t\"; "))
        << other.output;
    EXPECT_FALSE(std::filesystem::exists(out));
    EXPECT_EQ(trellisc("generate --bundle s --out " + out + " " + path).status, 0);
}

TEST_F(Program, GeneratesOnlyWhatChanged) {
    const std::string path = file("s.trellis", small);
    const std::string out = (directory_ / "out").string();
    ASSERT_EQ(trellisc("generate --out " + out + " --units 2 " + path).status, 0);
    const auto header = directory_ / "out/include/s/s.h";
    ASSERT_TRUE(std::filesystem::exists(header));
    EXPECT_TRUE(std::filesystem::exists(directory_ / "out/src/unit_01.cpp"));
    const auto old_time = std::filesystem::last_write_time(header);
    ASSERT_EQ(trellisc("generate --out " + out + " --units 2 " + path).status, 0);
    EXPECT_EQ(std::filesystem::last_write_time(header), old_time);
}

} // namespace
} // namespace trellis::schema::testing
