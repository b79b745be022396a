// The command line of one command: its positional arguments and options. What commands exist is told by main.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

/// An option that a command knows. `value` names what follows it; empty for a switch.
struct option {
    std::string_view name;
    std::string_view value;
    std::string_view help;
};

class arguments {
  public:
    /// Sorts the words into positional arguments and options; throws usage_failure for options not in `known` and
    /// for missing values, with the cure. The words behind an option whose value is "COMMAND..." are all its own.
    arguments(std::span<const std::string> words, std::span<const option> known, const std::string& cure);

    const std::vector<std::string>& positional() const { return positional_; }
    const std::string& operator[](std::size_t index) const { return positional_[index]; }
    /// The positional arguments from `first` on.
    std::span<const std::string> from(std::size_t first) const;

    bool has(std::string_view name) const;
    /// The last value given for the option.
    std::optional<std::string> value(std::string_view name) const;
    /// All values given for the option, in order.
    std::vector<std::string> values(std::string_view name) const;
    /// The option's value as a number within the bounds, or `otherwise`.
    unsigned number(std::string_view name, unsigned highest, unsigned otherwise) const;

  private:
    struct given {
        std::string name;
        std::string value;
    };
    std::vector<std::string> positional_;
    std::vector<given> options_;
};

/// The access rights of `--mode`, in octal digits; 0 without it.
std::uint32_t wanted_mode(const arguments& line);

} // namespace tool
