// Splits a schema text into tokens. Line ends are tokens; comments are dropped, doc comments are kept.
#pragma once

#include "schema/compiler/model.h"

#include <string>
#include <string_view>
#include <vector>

namespace trellis::schema {

enum class token_kind {
    name,         // starts with a letter or underscore
    number,       // decimal digits, with a minus sign before them or not
    digits,       // a word that starts with a digit and is no number: 03c893e7...
    mark,         // { } [ ] : , = -> ..
    doc,          // `/// text` on a line of its own: text
    trailing_doc, // `/// text` behind something else
    line_end,
    unknown,
    end,
};

struct token {
    token_kind kind;
    std::string_view text; // of the schema text; of docs without the slashes
    int line;
    int column;
};

/// Never fails: what is no token becomes `unknown`, one per run of such bytes. The last token is `end`. The
/// tokens refer to `text`.
std::vector<token> tokens_of(std::string_view text);

} // namespace trellis::schema
