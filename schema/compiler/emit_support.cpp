// Text helpers and the output tree of the emitters.
#include "schema/compiler/emit_support.h"

#include "schema/compiler/md5.h"

#include <cctype>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace trellis::schema {

namespace fs = std::filesystem;

// ---- Output tree ---------------------------------------------------------------------------------------------

void output_tree::add(const std::string& path, std::string content) {
    if (!files_.emplace(path, std::move(content)).second)
        throw std::logic_error("two emitters write the file " + path);
}

std::string output_tree::digest() const {
    std::string all;
    for (const auto& [path, content] : files_)
        all += path + "\n" + content;
    return hex(md5(all));
}

static bool holds(const fs::path& path, const std::string& content) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream present;
    present << in.rdbuf();
    return present.str() == content;
}

void output_tree::write() const {
    std::set<fs::path> folders;
    for (const auto& [name, content] : files_) {
        const fs::path path = root_ / name;
        folders.insert(path.parent_path());
        if (holds(path, content)) continue;
        std::error_code failure;
        fs::create_directories(path.parent_path(), failure);
        errno = 0;
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        file << content;
        file.close();
        if (!file) {
            if (!failure) failure.assign(errno, std::generic_category());
            throw std::runtime_error("cannot write " + path.string() + ": " + failure.message() +
                                     "; name a directory behind --out that you may write to");
        }
    }
    for (const fs::path& folder : folders)
        for (const fs::directory_entry& entry : fs::directory_iterator(folder))
            if (entry.path().extension() == ".h" &&
                !files_.contains(fs::relative(entry.path(), root_).generic_string()))
                fs::remove(entry.path());
}

// ---- Functions -----------------------------------------------------------------------------------------------

emission::emission(const bundle& of, const std::vector<exported_function>& functions, output_tree& to)
    : source(of), out(to) {
    for (const exported_function& each : functions)
        functions_.emplace(each.name, static_cast<unsigned>(functions_.size()));
}

unsigned emission::counter(const std::string& name) {
    const auto found = functions_.find(name);
    if (found == functions_.end()) throw std::logic_error("function " + name + " is not in the list of functions");
    if (!emitted_.insert(name).second) throw std::logic_error("function " + name + " is emitted twice");
    return found->second;
}

std::string emission::constant_name(const std::string& name) const {
    return functions_.contains(name) ? name + "_" : name;
}

void emission::require_all_emitted() const {
    for (const auto& [name, place] : functions_)
        if (!emitted_.contains(name)) throw std::logic_error("function " + name + " is not emitted");
}

/// "loom_handle* handle, const char name[4]" -> "handle, name"
static std::string argument_names(std::string_view parameters) {
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

std::string emission::definition(const function& what) {
    return "TRELLIS_EXPORT " + what.result + " " + what.name + "(" + what.parameters + ") { bundle::count(" +
           std::to_string(counter(what.name)) + "); return trellis::" + what.worker + "(" +
           argument_names(what.parameters) + "); }\n";
}

void emission::add(type_text& to, const function& what) {
    to.prototypes += doc_comment(what.doc);
    to.prototypes += what.result + " " + what.name + "(" + what.parameters + ");\n";
    to.exports += definition(what);
    ++to.weight;
}

void emission::public_header(const std::string& name, const std::string& summary,
                             const std::vector<std::string>& includes, const std::string& body) {
    const std::string guard = "LOOM_" + source.name + "_" + name + "_H";
    std::string text = generated_notice(source, summary);
    text += "#ifndef " + guard + "\n#define " + guard + "\n\n";
    text += "#include <loom/loom.h>\n#include <" + source.name + "/revision.h>\n";
    std::set<std::string> seen;
    for (const std::string& include : includes)
        if (seen.insert(include).second) text += "#include " + include + "\n";
    text += "\n#ifdef __cplusplus\nextern \"C\" {\n#endif\n\n";
    text += body;
    text += "\n#ifdef __cplusplus\n}\n#endif\n#endif\n";
    out.add("include/" + source.name + "/" + name + ".h", std::move(text));
}

std::string substitute(std::string_view text, const substitutions& with) {
    std::string result;
    while (!text.empty()) {
        const std::size_t dollar = text.find('$');
        result += text.substr(0, dollar);
        if (dollar == std::string_view::npos) break;
        text = text.substr(dollar);
        const auto starts = [&](std::string_view key) { return text.substr(0, key.size()) == key; };
        std::string_view matched;
        for (const auto& [key, value] : with) {
            if (!starts(key)) continue;
            matched = key;
            result += value;
            break;
        }
        if (matched.empty() && starts("$H")) {
            matched = "$H";
            result += "loom_handle* handle, uint32_t domain";
        } else if (matched.empty() && starts("$e")) {
            matched = "$e";
            result += "uint32_t* err";
        } else if (matched.empty()) {
            throw std::logic_error("unknown placeholder in " + std::string(text));
        }
        text = text.substr(matched.size());
    }
    return result;
}

std::string worker_name(std::string_view suffix) {
    std::string name(suffix);
    if (suffix == "sizeof" || suffix == "delete") name += '_';
    return name;
}

function make_function(const operation& op, const std::string& prefix, std::string_view family,
                       const std::string& model, const substitutions& with) {
    return {prefix + "_" + op.suffix, substitute(op.result, with), substitute(op.parameters, with),
            std::string(family) + "::" + worker_name(op.suffix) + "<" + model + ">", substitute(op.doc, with)};
}

// ---- Types ---------------------------------------------------------------------------------------------------

std::string c_type(const type_ref& type) {
    if (type.value != nullptr) return type.value->c_type;
    if (type.of_record != nullptr) return "struct " + type.of_record->name;
    if (type.of_enumeration != nullptr) return "struct " + type.of_enumeration->name;
    if (type.of_flag_set != nullptr) return "struct " + type.of_flag_set->name;
    return "loom_oid";
}

std::string facade(const type_ref& type) {
    if (type.value != nullptr) return "trellis::types::" + type.value->facade;
    if (type.of_record != nullptr) return "types::" + type.of_record->name;
    if (type.of_enumeration != nullptr) return "types::" + type.of_enumeration->name;
    if (type.of_flag_set != nullptr) return "types::" + type.of_flag_set->name;
    return "trellis::types::oid";
}

std::string plain_c_type(const type_ref& type) { return is_any_enumeration(type) ? "int32_t" : c_type(type); }

bool is_plain_value(const type_ref& type) {
    return type.value != nullptr &&
           (type.value->family == builtin_family::scalar || type.value->family == builtin_family::boolean);
}

bool is_any_enumeration(const type_ref& type) { return type.of_enumeration != nullptr; }

// ---- Text ----------------------------------------------------------------------------------------------------

std::string model_declaration(const std::string& bundle, const std::string& type) {
    return "namespace bundle_" + bundle + "::models {\nstruct " + type + ";\n}\n";
}
std::string model_alias(const std::string& type) { return "    using model = models::" + type + ";\n"; }

std::string doc_comment(const std::string& text, std::string_view indent) {
    if (text.empty()) return {};
    std::string comment(indent);
    comment += "/** ";
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\n') {
            comment += "\n";
            comment += indent;
            comment += " *  ";
        } else if (text[i] == '/' && i > 0 && text[i - 1] == '*') {
            comment += " /"; // would end the comment
        } else {
            comment += text[i];
        }
    }
    return comment + " */\n";
}

std::string joined(const std::vector<std::string>& parts, std::string_view between) {
    std::string text;
    for (const std::string& part : parts) {
        if (!text.empty()) text += between;
        text += part;
    }
    return text;
}

std::string c_literal(std::string_view text) {
    std::string result = "\"";
    for (const char character : text) {
        if (character == '"' || character == '\\') result += '\\';
        result += character;
    }
    return result + "\"";
}

std::string byte_list(const std::uint8_t* bytes, std::size_t count) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        if (i != 0) text += ", ";
        text += "0x";
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

std::string generated_notice(const bundle& source, const std::string& what) {
    return "/* " + what + " Written by trellisc from the schema " + source.name + "; changes belong there. */\n";
}

} // namespace trellis::schema
