// Compiles any text, of one file or of several with a line of '=' between them; what begins with a brace is read
// as JSON. A schema without mistakes goes through everything that is made of one, up to the sources.
#include "schema/compiler/compare.h"
#include "schema/compiler/emit_bundle.h"
#include "schema/compiler/emit_support.h"
#include "schema/compiler/json.h"
#include "schema/compiler/names.h"
#include "schema/compiler/reader.h"
#include "schema/compiler/report.h"
#include "schema/compiler/schema.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

using namespace trellis::schema;

namespace {

constexpr std::string_view separator = "\n=\n";

[[noreturn]] void found(const std::string& what) {
    std::fprintf(stderr, "found: %s\n", what.c_str());
    std::abort();
}

compiled compile_text(std::string_view text) {
    diagnostics mistakes;
    std::vector<syntax::file> files;
    for (size_t begin = 0; begin <= text.size();) {
        const size_t end = std::min(text.find(separator, begin), text.size());
        const std::string_view one = text.substr(begin, end - begin);
        const std::string name = "file" + std::to_string(files.size());
        files.push_back(one.starts_with('{') ? read_json(name, one, mistakes) : read_schema(name, one, mistakes));
        begin = end + separator.size();
    }
    return compile(files, std::move(mistakes));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const compiled result = compile_text({reinterpret_cast<const char*>(bytes), size});
    for (const diagnostic& each : result.mistakes)
        if (each.wrong.empty() || each.cure.empty() || each.where.line < 1)
            found("a mistake without place or cure");
    if (!result.good()) return 0;

    const bundle& model = *result.model;
    summary(model);
    layout_text(model);
    exported_functions(model);
    const std::string json = json_text(model);
    diagnostics mistakes;
    const compiled again = compile({read_json("model.json", json, mistakes)}, std::move(mistakes));
    if (!again.good()) found("its own JSON is refused: " + text_of(again.mistakes.front()));
    if (json_text(*again.model) != json) found("its JSON comes back as something else");
    if (!changes_between(model, *again.model).empty()) found("it differs from itself");

    output_tree tree("");
    compose_bundle(model, tree, 3);
    return 0;
}
