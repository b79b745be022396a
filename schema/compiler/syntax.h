// A schema text as it was written: names not yet resolved, files not yet joined. Made by the reader from text or
// by the JSON form, joined and resolved by the builder.
#pragma once

#include "schema/compiler/model.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace trellis::schema::syntax {

/// A name or other word with its place.
struct word {
    std::string text;
    location where;
};

enum class type_kind { named, array, text, oid, list };

/// The type of an attribute: `name`, `name[3]`, `name[count]`, `string[16]`, `string[count]`, `oid -> table`,
/// `list of name`.
struct type {
    type_kind is = type_kind::named;
    word name;                           // type, element or target table
    std::optional<std::uint32_t> extent; // array and text of fixed size
    std::optional<word> length;          // array and text with a length attribute
};

struct attribute {
    word name;
    std::string doc;
    syntax::type type;
    int since = 0;
    std::optional<word> discriminator; // an arm's
    std::optional<word> selected_by;   // and the member that selects it
};

struct record {
    word name;
    std::string doc;
    bool whole = true; // false: a line of it could not be read
    std::optional<int> unit;
    std::vector<attribute> attributes;
};

struct member {
    word name;
    std::string doc;
    std::int32_t value = 0; // enumerations
    int since = 0;
};

struct enumeration {
    word name;
    std::string doc;
    bool whole = true; // false: a line of it could not be read
    bool shared = false;
    std::vector<member> members;
};

struct flag_set {
    word name;
    std::string doc;
    bool whole = true; // false: a line of it could not be read
    std::vector<member> bits;
};

struct table {
    word name;
    std::string doc;
    word payload;
    key_kind key = key_kind::attribute;
    word key_name; // attribute or key record
    bool ordered = false;
    std::optional<word> luid;
};

struct message {
    word name;
    std::string doc;
    std::optional<word> payload;
};

struct foreign_table {
    word name;
    word luid;
};

struct import {
    word bundle;
    std::vector<word> enumerations;
    std::vector<foreign_table> tables;
};

/// One file. `bundle` is set by `bundle NAME`, `group` by `group NAME of BUNDLE`.
struct file {
    std::string name;
    bool is_text = true; // false: something else, of which nothing was read
    std::optional<word> bundle;
    std::string doc;
    std::optional<word> group;
    std::optional<word> group_of;
    int unit = 1; // trace unit of the file's records
    std::vector<word> groups;
    std::vector<word> order;
    std::vector<word> registry;
    std::vector<import> imports;
    std::vector<record> records;
    std::vector<enumeration> enumerations;
    std::vector<flag_set> flag_sets;
    std::vector<table> tables;
    std::vector<message> messages;
};

} // namespace trellis::schema::syntax
