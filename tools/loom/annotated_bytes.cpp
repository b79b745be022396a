#include "annotated_bytes.h"

#include "failure.h"
#include "schema_model.h"

#include "frame/wire_sizes.h"

#include <loom/wire.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <dlfcn.h>
#include <iomanip>
#include <map>

namespace tool {
namespace {

constexpr unsigned bytes_per_line = 8;
constexpr std::byte state_bytes_follow{0x08}, remote_data_follows{0x20};

/// A number of the frame, most significant byte first.
std::uint64_t number_in(std::span<const std::byte> bytes) {
    std::uint64_t number = 0;
    for (const std::byte byte : bytes)
        number = number << 8 | std::to_integer<std::uint64_t>(byte);
    return number;
}

std::string decimal_list(std::span<const std::byte> bytes) {
    std::string text;
    for (const std::byte byte : bytes)
        text += (text.empty() ? "" : " ") + std::to_string(std::to_integer<int>(byte));
    return text;
}

/// The characters in quotes, up to the first zero byte; what cannot be printed as a dot.
std::string quoted(std::span<const std::byte> bytes) {
    std::string text = "\"";
    for (const std::byte byte : bytes) {
        const int character = std::to_integer<int>(byte);
        if (character == 0) break;
        text += std::isprint(character) ? static_cast<char>(character) : '.';
    }
    return text + "\"";
}

/// The operations of a value type, enumeration or flag set, which tell how long its wire form is and what it says.
class value_reader {
  public:
    value_reader(loom_handle* handle, std::string type)
        : handle_(handle), type_(std::move(type)), create_(find<create_fn>("_create")),
          unmarshal_(find<unmarshal_fn>("_unmarshal")), print_(find<print_fn>("_print")),
          destroy_(find<destroy_fn>("_destroy_internal")) {}

    struct reading {
        std::size_t size;
        std::string text;
    };

    reading read(std::span<const std::byte> bytes, const std::string& path) const {
        // Values that nobody makes on their own have no `_create`; none of them is larger than this.
        alignas(16) std::array<std::byte, 64> room{};
        void* value = create_ ? create_(handle_, tool_domain) : room.data();
        if (!value) throw failure("there is no memory for a value of " + type_);
        std::uint32_t error = 0;
        const std::uint32_t size = unmarshal_(handle_, tool_domain, bytes.data(), value,
                                              static_cast<std::int32_t>(bytes.size()), 0, &error);
        std::vector<char> buffer(bytes.size() * 4 + 1024, ' ');
        std::int32_t length = 0;
        if (!error)
            length = print_(handle_, tool_domain, buffer.data(), 0, "", value,
                            static_cast<std::int32_t>(buffer.size()), &error);
        if (destroy_) destroy_(handle_, tool_domain, value, create_ ? 1u : 0u);
        if (error) throw failure(path + ": the bytes are no " + type_ + ": error " + error_number_text(error));
        return {size, value_text({buffer.data(), static_cast<std::size_t>(length)})};
    }

  private:
    using create_fn = void*(loom_handle*, std::uint32_t);
    using unmarshal_fn = std::uint32_t(loom_handle*, std::uint32_t, const void*, void*, std::int32_t,
                                       std::uint32_t, std::uint32_t*);
    using print_fn = std::int32_t(loom_handle*, std::uint32_t, char*, std::int32_t, const char*, const void*,
                                  std::int32_t, std::uint32_t*);
    using destroy_fn = void(loom_handle*, std::uint32_t, void*, std::uint32_t);

    template <class Function>
    Function* find(const char* operation) const {
        const std::string name = type_ + operation;
        void* found = nullptr;
        each_module([&](const loom_module_node& module) {
            const bundle_handle bundle = find_bundle(module.name);
            if (!found && bundle) found = loom_bundle_symbol(bundle.get(), name.c_str());
        });
        if (!found) found = ::dlsym(RTLD_DEFAULT, name.c_str());
        const bool optional =
            std::string_view(operation) == "_create" || std::string_view(operation) == "_destroy_internal";
        if (!found && !optional) throw failure("no loaded library has " + name);
        return reinterpret_cast<Function*>(found);
    }

    /// What stands behind "name@type:".
    static std::string value_text(const std::string& line) {
        std::string text = line.substr(std::min(line.find(':'), line.size() - 1) + 1);
        while (!text.empty() && (text.back() == '\n' || text.back() == ' ' || text.back() == '\0'))
            text.pop_back();
        return text;
    }

    loom_handle* handle_;
    std::string type_;
    create_fn* create_;
    unmarshal_fn* unmarshal_;
    print_fn* print_;
    destroy_fn* destroy_;
};

/// Walks the bytes once and writes a line per field.
class annotator {
  public:
    annotator(std::ostream& out, std::span<const std::byte> bytes, const schema_model& model)
        : out_(out), bytes_(bytes), model_(model), memory_(database::in_memory()) {
        out_ << "offset  " << std::left << std::setw(bytes_per_line * 3) << "bytes"
             << " what\n";
    }

    void table_record(const table_type& type) {
        frame(type.name());
        record(type.payload_type(), type.payload_type());
        if (!type.key_type().empty()) record(type.key_type(), type.key_type());
        if (at_ < bytes_.size()) field(bytes_.size() - at_, "", "not explained");
    }

  private:
    // ---- lines
    void line(std::size_t offset, std::span<const std::byte> bytes, const std::string& name,
              const std::string& meaning) {
        for (std::size_t at = 0; at < bytes.size(); at += bytes_per_line) {
            out_ << std::right << std::setw(6) << offset + at << "  ";
            for (std::size_t i = at; i < at + bytes_per_line; ++i) {
                if (i < bytes.size())
                    out_ << std::hex << std::setfill('0') << std::setw(2) << std::to_integer<unsigned>(bytes[i])
                         << std::dec << std::setfill(' ') << ' ';
                else
                    out_ << "   ";
            }
            if (at == 0) {
                out_ << ' ' << std::string(2 * depth_, ' ') << name;
                if (!meaning.empty()) out_ << (name.empty() ? "" : ": ") << meaning;
            }
            out_ << '\n';
        }
    }

    std::span<const std::byte> rest() const { return bytes_.subspan(at_); }

    /// The next bytes, without a line.
    std::span<const std::byte> take(std::size_t size, const std::string& name) {
        if (size > bytes_.size() - at_)
            throw failure("the bytes end at " + std::to_string(bytes_.size()) + ", inside of " + name);
        at_ += size;
        return bytes_.subspan(at_ - size, size);
    }

    /// A line for the next bytes.
    void field(std::size_t size, const std::string& name, const std::string& meaning) {
        const std::size_t offset = at_;
        line(offset, take(size, name), name, meaning);
    }

    std::uint64_t number_field(std::size_t size, const std::string& name, const std::string& unit) {
        const std::uint64_t number = number_in(rest().first(std::min(size, rest().size())));
        field(size, name, std::to_string(number) + unit);
        return number;
    }

    std::string value(const std::string& type, const std::string& name) {
        auto reader = readers_.find(type);
        if (reader == readers_.end()) reader = readers_.emplace(type, value_reader(memory_.handle(), type)).first;
        const value_reader::reading reading = reader->second.read(rest(), name);
        field(reading.size, name, reading.text + "  (" + type + ")");
        return reading.text;
    }

    // ---- frame
    void frame(const std::string& table) {
        number_field(1, "header magic", "");
        field(6, "header reserved", "");
        number_field(1, "header state tracking", "");
        number_field(4, "header tag", "");
        number_field(4, "header length", " bytes");
        field(trellis::wire::header_size - sizeof(loom_message_header), "header padding", "");
        field(LOOM_LUID_SIZE, "luid", "of table " + table);
    }

    // ---- records
    void record(const std::string& type, const std::string& name) {
        const schema_model::record* model = model_.find_record(type);
        if (!model)
            throw failure("the schema model does not know the record " + type,
                          "give the model of the bundle's own schema with --schema");
        const std::size_t begin = at_;
        const auto variant =
            static_cast<std::int8_t>(number_in(rest().first(std::min<std::size_t>(1, rest().size()))));
        field(1, name, type + ", variant " + std::to_string(variant));
        ++depth_;
        const std::byte flags = rest().empty() ? std::byte{} : rest().front();
        const bool states = (flags & state_bytes_follow) != std::byte{};
        field(1, "flags", states ? "state bytes follow each field" : "no state bytes");
        if ((flags & remote_data_follows) != std::byte{})
            field(trellis::wire::ra_data_size, "remote address data", "");
        const std::size_t base = at_;
        const std::uint64_t jump =
            number_in(rest().first(std::min<std::size_t>(trellis::wire::jump_size, rest().size())));
        field(trellis::wire::jump_size, "jump",
              "to " + std::to_string(base + jump) + ", " + std::to_string(base + jump - begin) + " bytes in all");

        std::map<std::string, std::string> values; // of this record, for arms
        for (const schema_model::attribute& each : model->attributes)
            if (each.since <= variant) attribute(each, *model, states, values);
        if (base + jump > at_) field(base + jump - at_, "", "of variants that this schema does not know");
        --depth_;
    }

    void attribute(const schema_model::attribute& each, const schema_model::record& holder, bool states,
                   std::map<std::string, std::string>& values) {
        using enum trellis::attribute_shape;
        switch (each.shape) {
        case length: break; // stands in front of its array
        case plain:
        case object:
            values[each.name] = single(each.type, each.name);
            state(states, each.name);
            break;
        case oid:
            value_of_reference(each.name);
            state(states, each.name);
            break;
        case fixed_array:
            elements(each, each.extent);
            state(states, each.name + ", whole");
            if (states) field(each.extent, "states of " + each.name, "");
            break;
        case variable_array: {
            const std::uint64_t count = count_before(each, holder);
            elements(each, count);
            if (count == 0) break;
            state(states, each.name + ", whole");
            if (states) field(count, "states of " + each.name, "");
            break;
        }
        case counted_string: {
            const std::uint64_t count = count_before(each, holder);
            if (count == 0) break;
            field(count, each.name, quoted(rest().first(std::min<std::size_t>(count, rest().size()))));
            state(states, each.name);
            break;
        }
        case fixed_string:
            field(each.extent, each.name, quoted(rest().first(std::min<std::size_t>(each.extent, rest().size()))));
            state(states, each.name);
            break;
        case arm:
            if (values[each.discriminator] == each.case_name)
                single(each.type, each.discriminator + "." + each.name);
            state(states, each.name);
            break;
        case list: {
            const std::uint64_t count = number_field(4, each.name, " elements");
            for (std::uint64_t i = 0; i < count; ++i)
                single(each.type, each.name + "[" + std::to_string(i) + "]");
            state(states, each.name);
            break;
        }
        }
    }

    std::string single(const std::string& type, const std::string& name) {
        if (model_.find_record(type)) {
            record(type, name);
            return {};
        }
        return value(type, name);
    }

    void value_of_reference(const std::string& name) {
        const bool empty =
            std::ranges::all_of(rest().first(std::min<std::size_t>(sizeof(loom_oid), rest().size())),
                                [](std::byte byte) { return byte == std::byte{}; });
        field(sizeof(loom_oid), name, empty ? "no reference" : "a reference: object, id, source");
    }

    std::uint64_t count_before(const schema_model::attribute& array, const schema_model::record& holder) {
        const auto length =
            std::ranges::find(holder.attributes, array.length_name, &schema_model::attribute::name);
        if (length == holder.attributes.end())
            throw failure("the schema model has no attribute " + array.length_name + " for the array " +
                          array.name);
        return std::stoull(value(length->type, length->name));
    }

    void elements(const schema_model::attribute& array, std::uint64_t count) {
        if (array.type == "u_int8") {
            if (count > 0)
                field(count, array.name, decimal_list(rest().first(std::min<std::size_t>(count, rest().size()))));
            return;
        }
        for (std::uint64_t i = 0; i < count; ++i)
            single(array.type, array.name + "[" + std::to_string(i) + "]");
    }

    void state(bool states, const std::string& name) {
        if (states) number_field(1, "state of " + name, "");
    }

    std::ostream& out_;
    std::span<const std::byte> bytes_;
    const schema_model& model_;
    database memory_;
    std::map<std::string, value_reader> readers_;
    std::size_t at_ = 0;
    unsigned depth_ = 0;
};

} // namespace

void write_annotated(std::ostream& out, std::span<const std::byte> bytes, const table_type& type,
                     const schema_model& model) {
    annotator(out, bytes, model).table_record(type);
}

} // namespace tool
