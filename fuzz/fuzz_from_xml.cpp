// Reads any document as any type.
//
//     type 1 | mode 1 | failing 1 | text
//
// The mode's bits: 0-1 state tracking, 2 the record's element is looked for at any depth under the type's name
// instead of being the document's own. `failing`: the number of the allocation that fails.
#include "fuzz/input.h"
#include "fuzz/subjects.h"

#include <loom_runtime/xml.h>

#include <memory>

using namespace trellis::fuzz;

namespace {
constexpr uint32_t domain = limited_database::domain;

struct document_end {
    void operator()(loom_xml_document* document) const { loom_xml_free(document); }
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    input from(bytes, size);
    const std::string& name = type_names()[from.byte() % type_names().size()];
    const unsigned mode = from.byte();
    limited_database& database = database_of_mode(mode & 3);
    const unsigned failing = from.byte();
    const exact_copy text(from.rest());
    const std::unique_ptr<loom_xml_document, document_end> document(
        loom_xml_parse(text.data(), from.rest().size(), nullptr));
    if (document == nullptr) return 0;

    const trellis::testing::named_type type(name);
    loom_handle* const handle = database.handle();
    database.begin(failing);
    void* const object = type.create(handle, domain);
    if (object != nullptr) {
        const std::string path = "//" + ((mode & 4) != 0 ? name : std::string(loom_xml_root_name(document.get())));
        uint32_t error = 0;
        type.from_xml(handle, domain, path.c_str(), document.get(), object, &error);
        look_at(name, database, object);
        restore_variants(name, database, object);
        type.destroy(handle, domain, object);
    }
    database.end();
    return 0;
}
