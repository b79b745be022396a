// Starting programs and looking at what they say; a directory of its own for each test.
#pragma once

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tool_test {

/// What a program left behind.
struct outcome {
    int status = -1; // exit status, or 128 and the signal's number
    std::string out;
    std::string err;
};

/// A program that was started; its output goes into files of `directory`.
class running_program {
  public:
    /// `standard_input` is a descriptor that becomes the program's standard input, or -1 for none.
    running_program(const std::filesystem::path& directory, const std::vector<std::string>& words,
                    int standard_input = -1);
    ~running_program();
    running_program(const running_program&) = delete;
    running_program& operator=(const running_program&) = delete;

    void kill();
    outcome wait();

  private:
    pid_t process_ = -1;
    std::filesystem::path out_, err_;
};

std::string contents_of(const std::filesystem::path& path);
/// The lines of a text.
std::vector<std::string> lines_of(const std::string& text);

/// A test with an empty directory and the tool.
class tool_fixture : public testing::Test {
  protected:
    tool_fixture();
    ~tool_fixture() override;

    /// Runs `loom` with these words.
    outcome loom(std::vector<std::string> words) const;
    /// The same; the test fails when the status is not 0.
    outcome loom_good(std::vector<std::string> words) const;
    /// A path in the test's directory.
    std::string file(const std::string& name) const { return (directory_ / name).string(); }
    /// Writes a file and returns its path.
    std::string written(const std::string& name, const std::string& contents) const;
    /// The path of a new database with the records of a file.
    std::string imported(const std::string& name, const std::string& xml_file) const;
    /// The same with the records of a text, which an element is put around.
    std::string database_of(const std::string& name, const std::string& records) const;
    /// A database with the beds of the example.
    std::string greenhouse_database(const std::string& name) const;
    /// A new database with what another one exports, which does so without a remark; the export stays in
    /// `name`.xml.
    std::string copy_through_xml(const std::string& db, const std::string& name) const;
    /// Runs `loom`, which is to end with 1 and to say all these parts.
    void expect_refused(const std::vector<std::string>& words, const std::vector<std::string>& said) const;

    const std::filesystem::path& directory() const { return directory_; }

  private:
    std::filesystem::path directory_;
};

testing::AssertionResult contains(const std::string& text, const std::string& part);

/// The element of a record of beds.
std::string bed(int house, int row, const std::string& inside = "", const std::string& attributes = "");

} // namespace tool_test
