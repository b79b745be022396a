#include "program.h"

#include <atomic>
#include <fcntl.h>
#include <fstream>
#include <signal.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace tool_test {

running_program::running_program(const fs::path& directory, const std::vector<std::string>& words,
                                 int standard_input) {
    static std::atomic<unsigned> count = 0;
    const std::string number = std::to_string(++count);
    out_ = directory / ("out." + number);
    err_ = directory / ("err." + number);
    std::vector<char*> arguments;
    for (const std::string& word : words)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);

    process_ = ::fork();
    if (process_ != 0) return;
    const int in = standard_input >= 0 ? standard_input : ::open("/dev/null", O_RDONLY);
    const int out = ::open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = ::open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(in, STDIN_FILENO);
    ::dup2(out, STDOUT_FILENO);
    ::dup2(err, STDERR_FILENO);
    ::execv(arguments[0], arguments.data());
    ::_exit(127);
}

running_program::~running_program() {
    if (process_ > 0) {
        kill();
        wait();
    }
}

void running_program::kill() { ::kill(process_, SIGKILL); }

outcome running_program::wait() {
    int status = 0;
    while (::waitpid(process_, &status, 0) < 0 && errno == EINTR) {
    }
    process_ = -1;
    return {WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status), contents_of(out_),
            contents_of(err_)};
}

std::string contents_of(const fs::path& path) {
    std::ostringstream contents;
    contents << std::ifstream(path, std::ios::binary).rdbuf();
    return std::move(contents).str();
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

tool_fixture::tool_fixture() {
    std::string name = (fs::temp_directory_path() / "loom-test-XXXXXX").string();
    if (!::mkdtemp(name.data())) throw std::runtime_error("no temporary directory");
    directory_ = name;
}

tool_fixture::~tool_fixture() {
    std::error_code error;
    fs::remove_all(directory_, error);
}

outcome tool_fixture::loom(std::vector<std::string> words) const {
    words.insert(words.begin(), LOOM_PROGRAM);
    return running_program(directory_, words).wait();
}

outcome tool_fixture::loom_good(std::vector<std::string> words) const {
    outcome result = loom(words);
    EXPECT_EQ(result.status, 0) << testing::PrintToString(words) << '\n' << result.err;
    return result;
}

std::string tool_fixture::written(const std::string& name, const std::string& contents) const {
    std::ofstream(directory_ / name, std::ios::binary) << contents;
    return file(name);
}

std::string tool_fixture::imported(const std::string& name, const std::string& xml_file) const {
    loom_good({"create", file(name)});
    loom_good({"import", file(name), xml_file});
    return file(name);
}

std::string tool_fixture::database_of(const std::string& name, const std::string& records) const {
    return imported(name, written(name + ".records", "<all>" + records + "</all>"));
}

std::string tool_fixture::greenhouse_database(const std::string& name) const { return imported(name, BEDS_FILE); }

std::string tool_fixture::copy_through_xml(const std::string& db, const std::string& name) const {
    EXPECT_EQ(loom_good({"export", db, "--output", file(name + ".xml")}).err, "");
    return imported(name, file(name + ".xml"));
}

void tool_fixture::expect_refused(const std::vector<std::string>& words,
                                  const std::vector<std::string>& said) const {
    SCOPED_TRACE(testing::PrintToString(words));
    const outcome result = loom(words);
    EXPECT_EQ(result.status, 1);
    for (const std::string& part : said)
        EXPECT_TRUE(contains(result.err, part));
}

testing::AssertionResult contains(const std::string& text, const std::string& part) {
    if (text.find(part) != std::string::npos) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "'" << part << "' is not in:\n" << text;
}

std::string bed(int house, int row, const std::string& inside, const std::string& attributes) {
    return "<bed_tbl" + attributes + "><bed>" + inside + "</bed><bed_key><house>" + std::to_string(house) +
           "</house><row>" + std::to_string(row) + "</row></bed_key></bed_tbl>";
}

} // namespace tool_test
