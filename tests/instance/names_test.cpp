// The library exports the functions of the pinned list and no others. That the schema brings just these, so many
// of each family, is told by the tests of its compiler.
#include <trellis_test_types/string_key.h>

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <set>
#include <string>

namespace trellis::testing {
namespace {

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

TEST(names, are_the_pinned_ones) {
    std::ifstream file(PINNED_NAMES);
    std::set<std::string> pinned;
    for (std::string line; std::getline(file, line);)
        if (!line.empty()) pinned.insert(line);
    ASSERT_FALSE(pinned.empty()) << PINNED_NAMES;
    const std::set<std::string> functions = exported_functions();
    std::string differences;
    for (const std::string& each : pinned)
        if (functions.count(each) == 0) differences += "missing " + each + "\n";
    for (const std::string& each : functions)
        if (pinned.count(each) == 0) differences += "new " + each + "\n";
    EXPECT_EQ(differences, "");
}

} // namespace
} // namespace trellis::testing
