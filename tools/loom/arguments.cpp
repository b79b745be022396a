#include "arguments.h"

#include "failure.h"

#include <algorithm>
#include <charconv>

namespace tool {

arguments::arguments(std::span<const std::string> words, std::span<const option> known, const std::string& cure) {
    bool options_ended = false;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (options_ended || word.size() < 3 || !word.starts_with("--")) {
            if (word == "--" && !options_ended)
                options_ended = true;
            else
                positional_.push_back(word);
            continue;
        }
        const std::size_t equals = word.find('=');
        const std::string name = word.substr(0, equals);
        const auto found = std::ranges::find(known, name, &option::name);
        if (found == known.end()) throw usage_failure("there is no option " + name + " here", cure);
        if (found->value.empty()) {
            if (equals != std::string::npos) throw usage_failure("option " + name + " takes no value", cure);
            options_.push_back({name, {}});
        } else if (equals != std::string::npos) {
            options_.push_back({name, word.substr(equals + 1)});
        } else if (i + 1 == words.size()) {
            throw usage_failure("option " + name + " wants " + std::string(found->value), cure);
        } else if (found->value == "COMMAND...") {
            while (++i < words.size())
                options_.push_back({name, words[i]});
        } else {
            options_.push_back({name, words[++i]});
        }
    }
}

std::span<const std::string> arguments::from(std::size_t first) const {
    return std::span(positional_).subspan(std::min(first, positional_.size()));
}

bool arguments::has(std::string_view name) const {
    return std::ranges::find(options_, name, &given::name) != options_.end();
}

std::vector<std::string> arguments::values(std::string_view name) const {
    std::vector<std::string> all;
    for (const given& each : options_)
        if (each.name == name) all.push_back(each.value);
    return all;
}

std::optional<std::string> arguments::value(std::string_view name) const {
    std::vector<std::string> all = values(name);
    if (all.empty()) return std::nullopt;
    return all.back();
}

unsigned arguments::number(std::string_view name, unsigned highest, unsigned otherwise) const {
    const std::optional<std::string> text = value(name);
    if (!text) return otherwise;
    unsigned number = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), number);
    if (error != std::errc() || end != text->data() + text->size() || number > highest)
        throw usage_failure("option " + std::string(name) + " wants a number from 0 to " +
                            std::to_string(highest) + ", not '" + *text + "'");
    return number;
}

std::uint32_t wanted_mode(const arguments& line) {
    const std::optional<std::string> digits = line.value("--mode");
    if (!digits) return 0;
    std::uint32_t mode = 0;
    const char* const end = digits->data() + digits->size();
    const auto [rest, error] = std::from_chars(digits->data(), end, mode, 8);
    if (error != std::errc{} || rest != end || mode > 0777 || (mode & 0600) != 0600)
        throw usage_failure("--mode " + *digits +
                            ": is no access right of files that their owner may read and write; "
                            "take three octal digits, such as 640");
    return mode;
}

} // namespace tool
