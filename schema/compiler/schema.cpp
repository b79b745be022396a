#include "schema/compiler/schema.h"

#include "schema/compiler/builder.h"
#include "schema/compiler/checker.h"
#include "schema/compiler/layout.h"
#include "schema/compiler/reader.h"

namespace trellis::schema {

compiled compile(const std::vector<syntax::file>& files, diagnostics mistakes) {
    compiled result;
    result.model = build_model(files, mistakes);
    check_model(*result.model, mistakes);
    if (mistakes.empty()) lay_out(*result.model, mistakes);
    std::vector<std::string> names;
    for (const syntax::file& file : files)
        names.push_back(file.name);
    result.mistakes = mistakes.sorted(names);
    return result;
}

compiled compile(const std::vector<source_text>& texts) {
    diagnostics mistakes;
    std::vector<syntax::file> files;
    for (const source_text& t : texts)
        files.push_back(read_schema(t.name, t.text, mistakes));
    return compile(files, std::move(mistakes));
}

} // namespace trellis::schema
