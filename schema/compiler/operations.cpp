#include "schema/compiler/operations.h"

#include <cctype>

namespace trellis::schema {
namespace {

/// "loom_handle* handle, const char name[4]" -> "handle, name"
std::string argument_names(std::string_view parameters) {
    std::string names;
    const auto is_word = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; };
    while (!parameters.empty()) {
        const std::size_t comma = parameters.find(',');
        std::string_view parameter = parameters.substr(0, comma);
        const std::size_t bracket = parameter.find('[');
        if (bracket != std::string_view::npos) parameter = parameter.substr(0, bracket);
        std::size_t start = parameter.size();
        while (start > 0 && is_word(parameter[start - 1]))
            --start;
        if (parameter.substr(start) != "void") {
            if (!names.empty()) names += ", ";
            names += parameter.substr(start);
        }
        parameters = comma == std::string_view::npos ? std::string_view{} : parameters.substr(comma + 1);
    }
    return names;
}

std::string worker_name(const operation& of) {
    if (of.worker != nullptr) return of.worker;
    const std::string_view suffix = of.suffix;
    const bool is_keyword = suffix == "sizeof" || suffix == "delete";
    return of.suffix + std::string(is_keyword ? "_" : "");
}

} // namespace

function function_of(const operation_group& group, const operation& which) {
    function made;
    made.name = group.prefix + which.suffix;
    made.result = substitute(which.result, group.with);
    made.parameters = substitute(which.parameters, group.with);
    made.doc = substitute(which.doc, group.with);
    made.returns = which.body != nullptr ? substitute(which.body, group.with)
                                         : substitute("trellis::$worker<$model>($arguments)",
                                                      {{"$worker", group.worker + worker_name(which)},
                                                       {"$model", group.model},
                                                       {"$arguments", argument_names(made.parameters)}});
    return made;
}

} // namespace trellis::schema
