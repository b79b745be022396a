// Text helpers and the output tree of the emitters.
#include "schema/compiler/emit_support.h"

#include "schema/compiler/md5.h"

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

void emission::add(type_text& to, const operation_group& group) {
    if (!group.heading.empty()) to.prototypes += "\n/* " + group.heading + " */\n";
    for (const operation& each : group.operations) {
        const function made = function_of(group, each);
        const substitutions with = {{"$result", made.result},
                                    {"$name", made.name},
                                    {"$parameters", made.parameters},
                                    {"$place", counter(made.name)},
                                    {"$returns", made.returns}};
        to.prototypes += doc_comment(made.doc) + substitute("$result $name($parameters);\n", with);
        to.exports += substitute("TRELLIS_EXPORT $result $name($parameters) { bundle::count($place); "
                                 "return $returns; }\n",
                                 with);
        ++to.weight;
    }
}

template_writer emission::writer(const std::string& summary, substitutions known) const {
    known.emplace_back("$bundle", source.name);
    template_writer begun(known);
    begun.add("/* " + summary + " Written by trellisc from the schema $bundle; changes belong there. */\n");
    return begun;
}

void emission::public_header(const std::string& name, const std::string& summary,
                             const std::vector<std::string>& includes, const std::string& body) {
    template_writer text = writer(summary, {{"$guard", "LOOM_" + source.name + "_" + name + "_H"}});
    text.add(R"(#ifndef $guard
#define $guard

#include <loom/loom.h>
#include <$bundle/revision.h>
)");
    std::set<std::string> seen;
    for (const std::string& include : includes)
        if (seen.insert(include).second) text.add("#include $header\n", {{"$header", include}});
    text.add(R"(
#ifdef __cplusplus
extern "C" {
#endif

)");
    text.add_plain(body);
    text.add(R"(
#ifdef __cplusplus
}
#endif
#endif
)");
    out.add("include/" + source.name + "/" + name + ".h", text.take());
}

// ---- Text ----------------------------------------------------------------------------------------------------

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

} // namespace trellis::schema
