// Records of the catalogue with patterns for them, and their operations by name: what the tests of all types
// share.
#pragma once

#include "tests/support/accessor_walk.h"
#include "tests/support/database.h"

#include <random>

namespace trellis::testing {

constexpr u32 domain = test_handle::domain;

/// The catalogue's description.
inline const schema_description& catalogue() {
    static const schema_description read = schema_description::read(SCHEMA_JSON);
    return read;
}

template <class Result = void, class... Argument>
Result operate(const std::string& type, const char* operation, Argument... argument) {
    return reinterpret_cast<Result (*)(Argument...)>(find_function(type + operation))(argument...);
}

/// A record with random contents: one of a few per type, which all stay until the process ends.
inline const void* pattern_of(const std::string& type, u64 seed) {
    constexpr u32 count = 7;
    static const database holder;
    static std::map<std::string, std::vector<void*>> all;
    std::vector<void*>& made = all[type];
    for (std::mt19937 random(1); made.size() < count;) {
        made.push_back(named_type(type).create(holder, domain));
        model_walker(catalogue(), holder, domain).fill(type, made.back(), random, {.presentable = true});
    }
    return made[seed % count];
}

} // namespace trellis::testing
