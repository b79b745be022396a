// Whole dumps of filled instances, one kind of attribute at a time: golden/<kind>.xml is read into a record of its
// root element's type, and all forms of that record must be those of golden/<kind>.txt, byte for byte.
//
// What XML does not carry is added: oids get fixed bytes. For the tracked form the attributes are marked 1, 2, 3
// and so on in schema order, parts behind their holder, so that each mark can be told from the others.
//
// When a dump differs, the new one is written to tests/codec/golden/<kind>.txt in the build folder, and the
// message has the command that compares the two. A format that is meant to change is accepted by copying that file
// over the old one.
#include "tests/codec/codec_fixture.h"

#include <loom/oid.h>
#include <loom_runtime/xml.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace trellis::testing {
namespace {

namespace fs = std::filesystem;

std::string contents_of(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

/// Sixteen bytes a line, each line with the offset of its first byte.
std::string hex_lines(const std::vector<uint8_t>& bytes) {
    std::string text;
    for (size_t at = 0; at < bytes.size(); at += 16) {
        char offset[24];
        snprintf(offset, sizeof offset, "%6zu  ", at);
        text += offset + hex(bytes.data() + at, std::min<size_t>(16, bytes.size() - at)) + "\n";
    }
    return text;
}

/// An instance that was read from the document, under a handle of its own.
class instance {
  public:
    instance(const fs::path& input, uint32_t tracking) : database_(tracking) {
        loom_xml_error fault{};
        document_ = loom_xml_parse_file(input.c_str(), &fault);
        if (document_ == nullptr) throw std::runtime_error(input.string() + ": " + fault.reason);
        type_ = loom_xml_root_name(document_);
        object_ = operations().create(database_, domain);
        uint32_t error = 0;
        operations().from_xml(database_, domain, type_.c_str(), document_, object_, &error);
        if (error != 0) throw std::runtime_error(input.string() + " is not read: error " + std::to_string(error));
        if (const record_description* record = record_of(type_)) {
            add_oids(*record, object_);
            if (tracking == LOOM_TRACKING_ON) mark(*record, object_);
        }
    }
    ~instance() {
        operations().destroy(database_, domain, object_);
        loom_xml_free(document_);
    }
    instance(const instance&) = delete;

    const std::string& type() const { return type_; }
    std::string bytes() const {
        std::vector<uint8_t> buffer(1u << 16);
        uint32_t error = 0;
        buffer.resize(operations().marshal(database_, domain, buffer.data(), object_,
                                           static_cast<int32_t>(buffer.size()), &error));
        return report(error) + hex_lines(buffer);
    }
    /// Unwritten bytes as dots.
    std::string text() const {
        std::string buffer(1u << 18, '\0');
        uint32_t error = 0;
        buffer.resize(
            static_cast<size_t>(operations().print(database_, domain, buffer.data(), 0, type_.c_str(), object_,
                                                   static_cast<int32_t>(buffer.size()), &error)));
        std::replace(buffer.begin(), buffer.end(), '\0', '.');
        return report(error) + buffer;
    }
    /// One element a line.
    std::string xml() const {
        std::string buffer(1u << 18, '\0');
        uint32_t error = 0;
        buffer.resize(operations().to_xml(database_, domain, type_.c_str(), buffer.data(), object_,
                                          static_cast<int32_t>(buffer.size()), 0, &error));
        for (size_t at = 0; (at = buffer.find("><", at)) != std::string::npos;)
            buffer.insert(++at, 1, '\n');
        return report(error) + buffer + "\n";
    }

  private:
    named_type operations() const { return named_type(type_); }
    static std::string report(uint32_t error) {
        return error == 0 ? std::string() : "error " + std::to_string(error) + "\n";
    }
    static const record_description* record_of(const std::string& type) {
        const auto found = schema().records.find(type);
        return found == schema().records.end() ? nullptr : &found->second;
    }
    static void add_oids(const record_description& record, void* object) {
        uint8_t next = 0xa0;
        for (const attribute_description& each : record.attributes) {
            if (each.shape != attribute_shape::oid) continue;
            auto* oid =
                static_cast<uint8_t*>(object) + each.offset + sizeof(void*); // behind the type that it refers to
            for (size_t i = 0; i < sizeof(loom_oid); ++i)
                oid[i] = static_cast<uint8_t>(i < 8 ? 0 : next + i);
            next += 0x10;
        }
    }

    // ---- Marks

    uint32_t call_setter(const std::string& name, void* object, uint32_t index) {
        uint32_t error = 0;
        reinterpret_cast<void (*)(loom_handle*, uint32_t, void*, uint32_t, uint8_t, uint32_t*)>(
            find_function(name))(database_, domain, object, index, static_cast<uint8_t>(last_mark_ + 1), &error);
        last_mark_ += error == 0 ? 1 : 0;
        return error;
    }
    void call_setter(const std::string& name, void* object) {
        uint32_t error = 0;
        reinterpret_cast<void (*)(loom_handle*, uint32_t, void*, uint8_t, uint32_t*)>(find_function(name))(
            database_, domain, object, static_cast<uint8_t>(++last_mark_), &error);
        EXPECT_EQ(error, 0u) << name;
    }

    void mark(const record_description& record, void* object) {
        for (const attribute_description& each : record.attributes) {
            if (each.shape == attribute_shape::length) continue;
            const std::string flag = record.name + "_" + each.name + "_state_flag_";
            auto* const place = static_cast<uint8_t*>(object) + each.offset;
            const record_description* part = record_of(each.type);
            switch (each.shape) {
            case attribute_shape::fixed_array:
            case attribute_shape::variable_array: {
                call_setter(flag + "whole_set", object);
                uint32_t count = 0;
                while (call_setter(flag + "set", object, count) == 0)
                    ++count;
                if (part == nullptr) break;
                uint8_t* block = place;
                if (each.shape == attribute_shape::variable_array) std::memcpy(&block, place, sizeof block);
                for (uint32_t i = 0; i < count; ++i)
                    mark(*part, block + i * part->base_size);
                break;
            }
            default:
                call_setter(flag + "set", object);
                if (part != nullptr && each.shape == attribute_shape::object) mark(*part, place);
            }
        }
    }

    database database_;
    loom_xml_document* document_ = nullptr;
    std::string type_;
    void* object_ = nullptr;
    uint32_t last_mark_ = 0;
};

class golden : public ::testing::TestWithParam<std::string> {};

TEST_P(golden, all_forms) {
    const fs::path folder(GOLDEN_FOLDER);
    const fs::path input = folder / (GetParam() + ".xml");
    const instance plain(input, LOOM_TRACKING_NONE), tracked(input, LOOM_TRACKING_ON);
    const std::string dump = plain.type() + "\n\n---- bytes\n" + plain.bytes() + "\n---- bytes, tracked\n" +
                             tracked.bytes() + "\n---- text\n" + plain.text() + "\n---- XML\n" + plain.xml() +
                             "\n---- XML, tracked\n" + tracked.xml();

    const fs::path golden = folder / (GetParam() + ".txt");
    if (dump == contents_of(golden)) return;
    fs::create_directories(GOLDEN_OUTPUT);
    const fs::path output = fs::path(GOLDEN_OUTPUT) / (GetParam() + ".txt");
    std::ofstream(output, std::ios::binary) << dump;
    ADD_FAILURE() << "the forms of " << plain.type() << " differ; see them with\n  diff -u " << golden.string()
                  << " " << output.string();
}

std::vector<std::string> kinds() {
    std::vector<std::string> names;
    for (const fs::directory_entry& each : fs::directory_iterator(GOLDEN_FOLDER))
        if (each.path().extension() == ".xml") names.push_back(each.path().stem());
    std::sort(names.begin(), names.end());
    return names;
}

INSTANTIATE_TEST_SUITE_P(kinds, golden, ::testing::ValuesIn(kinds()), [](const auto& info) { return info.param; });

} // namespace
} // namespace trellis::testing
