// Reads any bytes and any document as a record of any table, and any bytes as its key. A record that could be read
// goes through the table: into it, found in it, out of it.
//
//     table 1 | mode 1 | failing 1 | first 2 | bytes
//
// The mode's bits: 0-1 state tracking, 2 the record has been read from the first `first` bytes before the rest is
// read over it, 3 the rest is a document, 4 the rest is a key. `failing`: the number of the allocation that fails.
#include "fuzz/input.h"
#include "fuzz/subjects.h"

#include <loom_runtime/xml.h>

#include <memory>

using namespace trellis::fuzz;
using trellis::testing::find_function;
using trellis::testing::table_description;

namespace {

constexpr uint32_t domain = limited_database::domain;

/// One run on one table.
class table_run {
  public:
    table_run(const table_description& table, limited_database& database)
        : table_(table), database_(database), handle_(database.handle()) {}

    void read_record(std::span<const uint8_t> bytes, bool existing) {
        const exact_copy buffer(bytes);
        error_ = 0;
        call<uint32_t>("_table_record_unmarshal", handle_, domain, &record_, buffer.data(), buffer.size(),
                       uint32_t{existing}, &error_);
    }
    /// False when the table was told to leave what it made to nobody.
    bool read_document(std::span<const uint8_t> bytes) {
        const exact_copy text(bytes);
        loom_xml_document* document = loom_xml_parse(text.data(), bytes.size(), nullptr);
        if (document == nullptr) return true;
        char message[40];
        error_ = 0;
        record_ = call<loom_table_record*>("_table_record_from_xml", handle_, domain, document, &error_, message,
                                           uint32_t{sizeof message});
        loom_xml_free(document);
        return record_ != nullptr;
    }
    void read_key(std::span<const uint8_t> bytes) {
        const exact_copy buffer(bytes);
        void* key = nullptr;
        error_ = 0;
        call<uint32_t>("_table_pkey_unmarshal", handle_, domain, &key, buffer.data(), buffer.size(), &error_);
        if (key == nullptr) return;
        restore_variants(table_.key.empty() ? table_.payload : table_.key, database_, key);
        call<void>("_pkey_destroy", handle_, domain, key);
    }

    void look_at_record() {
        if (record_ == nullptr) return;
        database_.stop_failing();
        void* const payload = field(table_.payload);
        void* const key = table_.key.empty() ? payload : field(table_.key);
        if (payload == nullptr || key == nullptr) return;
        const auto room = static_cast<int32_t>(call<uint32_t>("_table_record_len", handle_, domain, record_));
        const std::unique_ptr<char[]> bytes(new char[static_cast<size_t>(room) + 1]);
        uint32_t error = 0;
        if (call<uint32_t>("_table_record_marshal", handle_, domain, bytes.get(), record_, room, &error) >
            static_cast<uint32_t>(room))
            found(table_.name + " wrote more than it was given room for");
        constexpr int32_t text_room = 1 << 13;
        const std::unique_ptr<char[]> text(new char[text_room]);
        error = 0;
        call<int32_t>("_table_record_print", handle_, domain, text.get(), record_, text_room, &error);
        error = 0;
        call<uint32_t>("_table_record_to_xml", handle_, domain, text.get(), record_, text_room, &error);
        look_at(table_.payload, database_, payload);
        if (!table_.key.empty()) look_at(table_.key, database_, key);
    }

    void end_record() {
        if (record_ == nullptr) return;
        database_.stop_failing();
        for (const std::string* each : {&table_.payload, &table_.key})
            if (void* object = each->empty() ? nullptr : field(*each)) restore_variants(*each, database_, object);
        uint32_t error = 0;
        call<void>("_destroy_record", handle_, domain, record_, &error);
        if (error != 0) found(table_.name + " cannot end a record: error " + std::to_string(error));
    }

  private:
    template <class Result, class... Argument>
    Result call(const std::string& operation, Argument... argument) {
        return reinterpret_cast<Result (*)(Argument...)>(find_function(table_.name + operation))(argument...);
    }
    void* field(const std::string& type) {
        return call<void*>("_" + type + "_get_field", handle_, domain, record_);
    }

    const table_description& table_;
    limited_database& database_;
    loom_handle* handle_;
    loom_table_record* record_ = nullptr;
    uint32_t error_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    input from(bytes, size);
    const table_description& table = schema().tables[from.byte() % schema().tables.size()];
    const unsigned mode = from.byte();
    limited_database& database = database_of_mode(mode & 3);
    const unsigned failing = from.byte();
    const size_t first = from.word();

    database.begin(failing);
    table_run run(table, database);
    if ((mode & 16) != 0) {
        run.read_key(from.rest());
    } else if ((mode & 8) != 0) {
        if (!run.read_document(from.rest())) {
            database.end_with_leftovers();
            return 0;
        }
    } else {
        const bool in_use = (mode & 4) != 0;
        if (in_use) run.read_record(from.part(first), false);
        run.read_record(from.rest(), in_use);
    }
    run.look_at_record();
    run.end_record();
    database.end();
    return 0;
}
