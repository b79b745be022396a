// Reading an XML document of n small records, for n from a thousand to a hundred thousand: time and memory must
// grow no faster than n. Two ways: records by path (`database/<table>[i]/<record>`) out of one parsed document,
// and `loom import` of the same file into a new database. Each measurement has a process of its own, so that its
// peak of memory is its own; times are CPU times. Prints the table of docs/benchmarks.md.
#include <trellis_test_types/compound_key.h>

#include <loom_runtime/runtime.h>
#include <loom_runtime/xml.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

namespace {

constexpr std::uint32_t domain = 1;
constexpr unsigned sizes[] = {1000, 3000, 10000, 30000, 100000};

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "xml_bench: %s\n", what.c_str());
    std::exit(1);
}

/// The records differ in the number that they begin with.
std::string document_of(unsigned n) {
    std::string text = "<database>\n";
    for (unsigned i = 0; i < n; ++i)
        text += "<tbl_top_level_compound_key><compound_key><uint32_simple_key>" + std::to_string(i) +
                "</uint32_simple_key><NOAUTORENAMEuint32key>1</NOAUTORENAMEuint32key><manual_rename_uint32_key>2"
                "</manual_rename_uint32_key><enum_simple_key><EN_VAL_1/></enum_simple_key><NOAUTORENAMEenumkey>"
                "<EN_VAL_2/></NOAUTORENAMEenumkey><manual_rename_enum_key><EN_VAL_3/></manual_rename_enum_key>"
                "</compound_key></tbl_top_level_compound_key>\n";
    return text + "</database>\n";
}

/// CPU time of this process, in seconds.
double cpu_time() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

struct by_path {
    double parse = 0, read = 0; // seconds
    double visited = 0;         // elements that the look-ups have looked at, per record
};

by_path read_by_path(const std::string& text, unsigned n) {
    by_path result;
    loom_handle* handle = loom_open_private();
    compound_key* record = compound_key_create(handle, domain);
    std::uint32_t error = 0;

    double start = cpu_time();
    loom_xml_document* document = loom_xml_parse(text.data(), text.size(), nullptr);
    if (document == nullptr) fail("the document is not parsed");
    result.parse = cpu_time() - start;

    start = cpu_time();
    for (unsigned i = 0; i < n; ++i) {
        const std::string path = "database/tbl_top_level_compound_key[" + std::to_string(i + 1) + "]/compound_key";
        compound_key_from_xml(handle, domain, path.c_str(), document, record, &error, nullptr, 0);
        if (error != 0 || compound_key_uint32_simple_key_get_value(handle, domain, record, &error) != i)
            fail(path + " is not read: error " + std::to_string(error));
    }
    result.read = cpu_time() - start;
    result.visited = static_cast<double>(loom_xml_visited(document)) / n;
    loom_xml_free(document);
    compound_key_destroy(handle, domain, record);
    loom_close(handle);
    return result;
}

double seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

/// Runs a program to its end and returns what it has used.
rusage run(const std::vector<std::string>& command) {
    const pid_t child = fork();
    if (child == 0) {
        std::vector<char*> arguments;
        for (const std::string& each : command)
            arguments.push_back(const_cast<char*>(each.c_str()));
        arguments.push_back(nullptr);
        if (std::freopen("/dev/null", "w", stdout) == nullptr) _exit(126);
        execv(arguments[0], arguments.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    if (wait4(child, &status, 0, &usage) != child || status != 0) fail(command[0] + " " + command[1] + " fails");
    return usage;
}

/// What one process has found, for the one that prints.
struct result {
    by_path path;
    long path_peak = 0; // KiB
    double import = 0;  // seconds
    long import_peak = 0;
    double file_size = 0;
};

/// The body's result out of a process of its own, and the peak of memory of that process, its document included.
template <class Body>
by_path in_a_process(Body&& body, long& peak) {
    int channel[2];
    if (pipe(channel) != 0) fail("no pipe");
    const pid_t child = fork();
    if (child == 0) {
        const by_path found = body();
        _exit(write(channel[1], &found, sizeof found) == sizeof found ? 0 : 1);
    }
    by_path found;
    int status = 0;
    rusage usage{};
    const bool whole = read(channel[0], &found, sizeof found) == sizeof found;
    if (wait4(child, &status, 0, &usage) != child || status != 0 || !whole) fail("a measurement ends early");
    close(channel[0]);
    close(channel[1]);
    peak = usage.ru_maxrss;
    return found;
}

result measure(unsigned n, const std::filesystem::path& folder) {
    result found;
    const std::filesystem::path file = folder / "records.xml";
    {
        const std::string text = document_of(n);
        found.file_size = static_cast<double>(text.size());
        std::FILE* out = std::fopen(file.c_str(), "w");
        if (out == nullptr || std::fwrite(text.data(), 1, text.size(), out) != text.size())
            fail("no file is written");
        std::fclose(out);
    }
    found.path = in_a_process([n] { return read_by_path(document_of(n), n); }, found.path_peak);

    const std::filesystem::path database = folder / "records.db";
    run({LOOM_TOOL, "create", database});
    const rusage import = run({LOOM_TOOL, "import", database, file});
    found.import_peak = import.ru_maxrss;
    found.import = seconds(import.ru_utime) + seconds(import.ru_stime);
    for (const auto& each : std::filesystem::directory_iterator(folder))
        std::filesystem::remove_all(each);
    return found;
}

} // namespace

int main() {
    std::string folder = (std::filesystem::temp_directory_path() / "xml_bench_XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) fail("no folder for files");
    std::printf(
        "| records | file, MB | parse, us per record | read by path, us per record | elements looked at per "
        "record | peak, MB | `loom import`, us per record | peak, MB |\n");
    std::printf("|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    std::fflush(stdout); // measurements go on in processes that share the buffer
    for (const unsigned n : sizes) {
        const result found = measure(n, folder);
        const double us_per_record = 1e6 / n;
        std::printf("| %u | %.2f | %.2f | %.2f | %.1f | %.1f | %.1f | %.1f |\n", n, found.file_size / 1e6,
                    found.path.parse * us_per_record, found.path.read * us_per_record, found.path.visited,
                    static_cast<double>(found.path_peak) / 1024, found.import * us_per_record,
                    static_cast<double>(found.import_peak) / 1024);
        std::fflush(stdout);
    }
    std::filesystem::remove_all(folder);
    return 0;
}
