// The schemas that these tests read, and shorthands for small ones.
#pragma once

#include "schema/compiler/schema.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace trellis::schema::testing {

inline std::string content_of(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.good()) << path;
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

/// The schema files of a directory, sorted by name; locations name the file without its directory.
inline std::vector<source_text> texts_of(const std::filesystem::path& directory) {
    std::vector<source_text> texts;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        if (entry.path().extension() == ".trellis")
            texts.push_back({entry.path().filename().string(), content_of(entry.path())});
    std::sort(texts.begin(), texts.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
    return texts;
}

/// The mistakes, one a line, for messages of failing tests.
inline std::string told(const compiled& result) {
    std::string text;
    for (const diagnostic& d : result.mistakes)
        text += text_of(d) + "\n";
    return text;
}

inline const bundle& catalogue() {
    static const compiled result = compile(texts_of(TRELLIS_SCHEMA_DIR));
    EXPECT_TRUE(result.good()) << told(result);
    return *result.model;
}

/// Compiles one text, which is to be without mistakes.
inline std::unique_ptr<bundle> model_of(const std::string& text) {
    compiled result = compile(std::vector<source_text>{{"s.trellis", text}});
    EXPECT_TRUE(result.good()) << told(result);
    return std::move(result.model);
}

} // namespace trellis::schema::testing
