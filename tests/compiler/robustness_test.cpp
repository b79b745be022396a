// No input makes the compiler fail but by telling mistakes: cut, shuffled and garbled schemas, and shapes that
// would exhaust a careless compiler. Seeds are fixed, so that a failure repeats.
#include "schemas.h"

#include "schema/compiler/json.h"

#include <random>
#include <sstream>

namespace trellis::schema::testing {
namespace {

/// Compiles any text; a result without mistakes is printed as JSON too.
void survive(const std::string& text) {
    const compiled result = compile(std::vector<source_text>{{"s.trellis", text}});
    if (result.good()) json_text(*result.model);
    for (const diagnostic& d : result.mistakes) {
        ASSERT_GE(d.where.line, 1);
        ASSERT_FALSE(d.wrong.empty() || d.cure.empty());
    }
}

std::string sample() {
    std::string text = "bundle s\n";
    for (const char* name : {"unions.trellis", "nested.trellis", "lists.trellis", "messages.trellis"}) {
        const std::string part = content_of(std::filesystem::path(TRELLIS_SCHEMA_DIR) / name);
        text += part.substr(part.find("\n\n"));
    }
    return text;
}

TEST(robustness, cut_anywhere) {
    const std::string text = sample();
    for (std::size_t end = 0; end < text.size(); end += 37)
        survive(text.substr(0, end));
}

TEST(robustness, garbled_bytes) {
    const std::string text = sample();
    std::mt19937 random(20240607);
    const std::string alphabet = "{}[]:,=.->/ \n\tax_09\"\xff\x00@";
    for (int round = 0; round < 300; ++round) {
        std::string garbled = text;
        for (int i = 0; i < 20; ++i)
            garbled[random() % garbled.size()] = alphabet[random() % alphabet.size()];
        survive(garbled);
    }
}

TEST(robustness, shuffled_lines) {
    std::vector<std::string> lines;
    std::istringstream in(sample());
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    std::mt19937 random(7);
    for (int round = 0; round < 100; ++round) {
        std::string text;
        for (int i = 0; i < 200; ++i)
            text += lines[random() % lines.size()] + "\n";
        survive(text);
    }
}

TEST(robustness, garbled_json) {
    const std::string text = json_text(*model_of(
        "bundle s\nenum e {\n A\n}\nrecord r {\n d: e {\n case A\n x: u_int8\n }\n"
        " n: u_int8\n v: r2[n]\n}\nrecord r2 {\n s: string[16]\n n: u_int8\n}\ntable t of r2 keyed by n\n"));
    std::mt19937 random(99);
    const std::string alphabet = "{}[]:,\"0-9ax \n";
    for (int round = 0; round < 2000; ++round) {
        std::string garbled = text;
        for (int i = 0; i < 3; ++i)
            garbled[random() % garbled.size()] = alphabet[random() % alphabet.size()];
        diagnostics mistakes;
        const std::vector<syntax::file> files = {read_json("s.json", garbled, mistakes)};
        compile(files, std::move(mistakes));
    }
}

/// records r0, r1, ...; each holds `count` of the next in `order`.
std::string nested(int depth, bool rising, const std::string& type_suffix) {
    std::string text = "bundle s\n";
    for (int i = 0; i < depth; ++i) {
        const int n = rising ? i : depth - 1 - i;
        const std::string inner = n == 0 ? "u_int8" : "r" + std::to_string(n - 1) + type_suffix;
        text += "record r" + std::to_string(n) + " {\n a: " + inner + "\n b: " + inner + "\n}\n";
    }
    return text + "record p {\n x: u_int8\n}\ntable t of p keyed by record r" + std::to_string(depth - 1) + "\n";
}

TEST(robustness, deep_nesting_is_refused) {
    for (const bool rising : {true, false}) {
        const compiled result = compile(std::vector<source_text>{{"s.trellis", nested(20000, rising, "")}});
        ASSERT_FALSE(result.good());
        EXPECT_TRUE(std::any_of(result.mistakes.begin(), result.mistakes.end(), [](const diagnostic& d) {
            return d.wrong.starts_with("records are nested more than");
        }));
    }
}

TEST(robustness, sizes_that_multiply_are_refused) {
    const compiled result = compile(std::vector<source_text>{{"s.trellis", nested(40, true, "[60000]")}});
    ASSERT_FALSE(result.good());
    const compiled doubled = compile(std::vector<source_text>{{"s.trellis", nested(60, true, "")}});
    ASSERT_FALSE(doubled.good());
}

TEST(robustness, endless_runs_end) {
    std::string text = "bundle s\nrecord r {\n";
    for (int i = 0; i < 2000; ++i)
        text += " a" + std::to_string(i) + "_0 .. a" + std::to_string(i) + "_1000: u_int8\n";
    survive(text + "}\n");
}

} // namespace
} // namespace trellis::schema::testing
