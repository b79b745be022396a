#include "schema/compiler/diagnostics.h"

#include <algorithm>
#include <tuple>

namespace trellis::schema {

bool diagnostics::told_at(const location& where) const {
    return std::any_of(list_.begin(), list_.end(), [&](const diagnostic& d) {
        return std::tie(d.where.file, d.where.line, d.where.column) ==
               std::tie(where.file, where.line, where.column);
    });
}

std::vector<diagnostic> diagnostics::sorted(const std::vector<std::string>& files) const {
    auto rank = [&](const diagnostic& d) {
        const auto file = std::find(files.begin(), files.end(), d.where.file) - files.begin();
        return std::tuple(file, d.where.line, d.where.column);
    };
    std::vector<diagnostic> result = list_;
    std::stable_sort(result.begin(), result.end(),
                     [&](const diagnostic& a, const diagnostic& b) { return rank(a) < rank(b); });
    auto same = [](const diagnostic& a, const diagnostic& b) { return text_of(a) == text_of(b); };
    result.erase(std::unique(result.begin(), result.end(), same), result.end());
    return result;
}

} // namespace trellis::schema
