// From records to texts: reads the trace sections of bundles. A section of luids names its unit and the lengths of
// its texts; the texts of all units of an object follow each other in one bzip2 stream, in section order.
#include "runtime/database/error_text.h"
#include "runtime/export.h"
#include "runtime/registry/elf_file.h"
#include "runtime/trace/record.h"

#include <algorithm>
#include <array>
#include <bzlib.h>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace loom {
namespace {
using bytes = std::span<const std::byte>;
using unit_hash = std::array<u8, 16>;

constexpr std::string_view luids_prefix = ".spoor_luids_";
constexpr std::string_view strings_name = ".spoor_format_strings";
constexpr u16 section_version = 1;
constexpr std::size_t section_head = 20;
constexpr std::size_t entry_size = 6;

struct unit_texts {
    std::shared_ptr<const std::string> store;
    std::vector<std::pair<u64, u16>> texts; ///< place in the store and length
};

template <class T>
bool read_at(bytes from, u64 offset, T& value) {
    if (offset > from.size() || sizeof value > from.size() - offset) return false;
    std::memcpy(&value, from.data() + offset, sizeof value);
    return true;
}

bool decompress(bytes stream, std::string& text) {
    bz_stream reader{};
    if (BZ2_bzDecompressInit(&reader, 0, 0) != BZ_OK) return false;
    reader.next_in = const_cast<char*>(reinterpret_cast<const char*>(stream.data()));
    reader.avail_in = static_cast<unsigned>(stream.size());
    std::array<char, 65536> piece;
    int result = BZ_OK;
    while (result == BZ_OK) {
        reader.next_out = piece.data();
        reader.avail_out = piece.size();
        result = BZ2_bzDecompress(&reader);
        text.append(piece.data(), piece.size() - reader.avail_out);
        if (result == BZ_OK && reader.avail_in == 0 && reader.avail_out == piece.size()) break;
    }
    BZ2_bzDecompressEnd(&reader);
    return result == BZ_STREAM_END;
}

/// Appends one argument under a conversion: everything from '%' to its letter.
void append_argument(std::string& out, const std::string& conversion, const loom_trace_argument& argument) {
    const char letter = conversion.back();
    char text[64];
    if (letter == 's') {
        if (argument.kind == 1)
            out += argument.text ? std::string(argument.text, argument.text_length) : "(null)";
        else
            out += std::to_string(argument.number);
    } else if (argument.kind == 1) {
        out += '"' + std::string(argument.text ? argument.text : "", argument.text_length) + '"';
    } else if (letter == 'd' || letter == 'i') {
        std::snprintf(text, sizeof text, "%" PRId64,
                      argument.kind == 4 ? i64{static_cast<i32>(argument.number)}
                                         : static_cast<i64>(argument.number));
        out += text;
    } else {
        std::snprintf(text, sizeof text,
                      letter == 'p'   ? "0x%" PRIx64
                      : letter == 'x' ? "%" PRIx64
                                      : "%" PRIu64,
                      argument.number);
        out += text;
    }
}

std::string format_text(std::string_view format, const loom_trace_record& record) {
    std::string out;
    u16 next = 0;
    for (std::size_t i = 0; i < format.size(); ++i) {
        if (format[i] != '%') {
            out += format[i];
            continue;
        }
        const std::size_t end = std::min(format.find_first_of("sdiupxc%", i + 1), format.size() - 1);
        const std::string conversion(format.substr(i, end - i + 1));
        if (conversion == "%%")
            out += '%';
        else if (next < record.argument_count)
            append_argument(out, conversion, record.arguments[next++]);
        else
            out += conversion;
        i = end;
    }
    return out;
}

std::string format_unknown(const loom_trace_record& record) {
    std::string out = "statement " + std::to_string(record.index) + " of unit ";
    char digits[3];
    for (const u8 byte : record.unit) {
        std::snprintf(digits, sizeof digits, "%02x", byte);
        out += digits;
    }
    for (u16 i = 0; i < record.argument_count; ++i) {
        out += i ? ", " : ": ";
        append_argument(out,
                        record.arguments[i].kind == 1   ? "%s"
                        : record.arguments[i].kind == 5 ? "%p"
                                                        : "%u",
                        record.arguments[i]);
    }
    return out;
}
} // namespace
} // namespace loom

using namespace loom;

struct loom_trace_decoder {
    std::map<unit_hash, unit_texts> units;
    std::vector<unit_hash> order;

    const unit_texts* find(const u8* unit) const {
        unit_hash key;
        std::copy_n(unit, key.size(), key.begin());
        const auto found = units.find(key);
        return found == units.end() ? nullptr : &found->second;
    }
};

LOOM_EXPORT loom_trace_decoder* loom_trace_decoder_create(void) { return new loom_trace_decoder; }
LOOM_EXPORT void loom_trace_decoder_release(loom_trace_decoder* decoder) { delete decoder; }

LOOM_EXPORT uint32_t loom_trace_decoder_add(loom_trace_decoder* decoder, const char* path) {
    const mapped_file file(path);
    if (file.contents().empty())
        return fail(errno ? static_cast<u32>(errno) : EINVAL, "%s: cannot be read: %s", path,
                    words_of(errno).c_str());
    std::map<u16, elf_section> luids; // by section index
    bytes stream;
    for (elf_section& each : sections_of(file.contents())) {
        if (each.name == strings_name) stream = each.contents;
        if (!each.name.starts_with(luids_prefix)) continue;
        u16 version = 0, index = 0;
        if (!read_at(each.contents, 0, version) || !read_at(each.contents, 2, index) ||
            version != section_version || each.contents.size() < section_head ||
            (each.contents.size() - section_head) % entry_size != 0)
            return fail(EINVAL, "%s: section %s is not of version %u or not whole", path, each.name.c_str(),
                        section_version);
        const std::string name = each.name;
        if (!luids.emplace(index, std::move(each)).second)
            return fail(EINVAL, "%s: section %s has the number %u of another one", path, name.c_str(), index);
    }
    if (luids.empty() || stream.empty()) return fail(ENOENT, "%s: has no trace sections", path);
    auto store = std::make_shared<std::string>();
    if (!decompress(stream, *store))
        return fail(EINVAL, "%s: section %s is no whole bzip2 stream", path, std::string(strings_name).c_str());
    std::vector<std::pair<unit_hash, unit_texts>> read;
    u64 place = 0;
    for (const auto& [index, section] : luids) {
        auto& [hash, unit] = read.emplace_back();
        std::memcpy(hash.data(), section.contents.data() + 4, hash.size());
        unit.store = store;
        for (std::size_t at = section_head; at < section.contents.size(); at += entry_size) {
            u16 length = 0;
            read_at(section.contents, at + 4, length);
            unit.texts.emplace_back(place, length);
            place += length;
        }
    }
    if (place != store->size())
        return fail(EINVAL, "%s: the sections tell of %" PRIu64 " bytes of text, the store has %zu", path, place,
                    store->size());
    for (auto& [hash, unit] : read)
        if (decoder->units.insert_or_assign(hash, std::move(unit)).second) decoder->order.push_back(hash);
    return done();
}

LOOM_EXPORT const char* loom_trace_decoder_text(const loom_trace_decoder* decoder, const uint8_t unit[16],
                                                uint32_t index, uint32_t* length) {
    const unit_texts* found = decoder->find(unit);
    if (!found || index >= found->texts.size()) return nullptr;
    *length = found->texts[index].second;
    return found->store->data() + found->texts[index].first;
}

LOOM_EXPORT uint32_t loom_trace_decoder_unit_size(const loom_trace_decoder* decoder, const uint8_t unit[16]) {
    const unit_texts* found = decoder->find(unit);
    return found ? static_cast<uint32_t>(found->texts.size()) : 0;
}

LOOM_EXPORT uint32_t loom_trace_decoder_unit(const loom_trace_decoder* decoder, uint32_t number,
                                             uint8_t unit[16]) {
    if (number >= decoder->order.size()) return 0;
    std::copy(decoder->order[number].begin(), decoder->order[number].end(), unit);
    return 1;
}

LOOM_EXPORT size_t loom_trace_format(const loom_trace_decoder* decoder, const loom_trace_record* record,
                                     char* buffer, size_t size) {
    uint32_t length = 0;
    const char* text = decoder ? loom_trace_decoder_text(decoder, record->unit, record->index, &length) : nullptr;
    std::string message = text ? format_text({text, length}, *record) : format_unknown(*record);
    if (text && message.starts_with(' ')) message.erase(0, 1);
    if (size) {
        const size_t copied = std::min(size - 1, message.size());
        std::memcpy(buffer, message.data(), copied);
        buffer[copied] = 0;
    }
    return message.size();
}
