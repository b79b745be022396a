// What is wrong with a schema, where, and what to do about it. Stages add to one list and go on, so that one run
// tells all that is wrong.
#pragma once

#include "schema/compiler/model.h"

#include <string>
#include <vector>

namespace trellis::schema {

/// One mistake. `wrong` says what is the matter, `cure` what to do; both without a full stop.
struct diagnostic {
    location where;
    std::string wrong;
    std::string cure;
};

/// "file:line:column: wrong; cure"
inline std::string text_of(const diagnostic& d) {
    return d.where.file + ":" + std::to_string(d.where.line) + ":" + std::to_string(d.where.column) + ": " +
           d.wrong + "; " + d.cure;
}

class diagnostics {
  public:
    void add(const location& where, std::string wrong, std::string cure) {
        list_.push_back({where, std::move(wrong), std::move(cure)});
    }
    bool empty() const { return list_.empty(); }
    /// Whether something was told about this very place.
    bool told_at(const location& where) const;
    /// In the order of `files`, then by line and column; equal ones once.
    std::vector<diagnostic> sorted(const std::vector<std::string>& files) const;

  private:
    std::vector<diagnostic> list_;
};

} // namespace trellis::schema
