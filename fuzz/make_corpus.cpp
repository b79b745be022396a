// Writes what the fuzzing programs start from: every type filled with random values, in its binary form and as
// XML, and a record of every table in both. The same seed gives the same files.
//
//     make_corpus DIRECTORY
//
// makes DIRECTORY/fuzz_unmarshal/<type> and so on.
#include "fuzz/input.h"
#include "fuzz/subjects.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace trellis::fuzz {
namespace {

constexpr uint32_t domain = limited_database::domain;
constexpr size_t largest_file = 4096;

void write(const std::filesystem::path& path, const std::string& content) {
    if (content.size() > largest_file) return;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

/// An object of the type with random contents, and its forms.
class sample {
  public:
    sample(const std::string& type, limited_database& database, uint32_t seed)
        : type_(type), operations_(type), database_(database),
          object_(operations_.create(database.handle(), domain)) {
        std::mt19937 random(seed);
        testing::fill_options options;
        options.presentable = true;
        testing::model_walker(schema(), database.handle(), domain).fill(type, object_, random, options);
    }
    ~sample() { operations_.destroy(database_.handle(), domain, object_); }
    sample(const sample&) = delete;
    sample& operator=(const sample&) = delete;

    std::string binary() const {
        std::string bytes(operations_.len(database_.handle(), domain, object_) + 1, '\0');
        uint32_t error = 0;
        bytes.resize(operations_.marshal(database_.handle(), domain, bytes.data(), object_,
                                         static_cast<int32_t>(bytes.size()) - 1, &error));
        return bytes;
    }
    std::string xml() const {
        std::string text(1u << 16, '\0');
        uint32_t error = 0;
        text.resize(operations_.to_xml(database_.handle(), domain, type_.c_str(), text.data(), object_,
                                       static_cast<int32_t>(text.size()), 0, &error));
        return text;
    }

  private:
    std::string type_;
    testing::named_type operations_;
    limited_database& database_;
    void* object_;
};

char byte(size_t value) { return static_cast<char>(value); }
std::string word(size_t value) { return {byte(value >> 8), byte(value & 0xFF)}; }

void write_types(const std::filesystem::path& out) {
    for (size_t i = 0; i < type_names().size(); ++i) {
        const std::string& type = type_names()[i];
        const bool tracked = i % 2 == 1;
        const sample first(type, database_of_mode(tracked ? 2 : 0), 1),
            second(type, database_of_mode(tracked ? 2 : 0), 2);
        const std::string before = first.binary(), after = second.binary();
        const char mode = byte((tracked ? 2 : 0) | 4);
        write(out / "fuzz_unmarshal" / type, std::string{byte(i), mode, 0} + word(before.size()) + before + after);
        write(out / "fuzz_from_xml" / type, std::string{byte(i), byte(tracked ? 6 : 4), 0} + first.xml());
    }
}

void write_tables(const std::filesystem::path& out) {
    const std::string frame(LOOM_MESSAGE_HEADER_WIRE_SIZE + LOOM_LUID_SIZE, '\0');
    for (size_t i = 0; i < schema().tables.size(); ++i) {
        const auto& table = schema().tables[i];
        limited_database& database = database_of_mode(0);
        const sample payload(table.payload, database, 3);
        std::string bytes = frame + payload.binary(), text = payload.xml();
        if (!table.key.empty()) {
            const sample key(table.key, database, 4);
            bytes += key.binary();
            text += key.xml();
        }
        write(out / "fuzz_table_record" / (table.name + ".binary"), std::string{byte(i), 0, 0} + word(0) + bytes);
        write(out / "fuzz_table_record" / (table.name + ".xml"),
              std::string{byte(i), 8, 0} + word(0) + "<" + table.name + ">" + text + "</" + table.name + ">");
    }
}

} // namespace
} // namespace trellis::fuzz

int main(int count, char** arguments) {
    if (count != 2) {
        std::cerr << "usage: make_corpus DIRECTORY\n";
        return 2;
    }
    const std::filesystem::path out = arguments[1];
    trellis::fuzz::write_types(out);
    trellis::fuzz::write_tables(out);
}
