// The one way in which a command gives up: what went wrong, where, and how to cure it. main prints it.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace tool {

class failure : public std::runtime_error {
  public:
    explicit failure(const std::string& what, std::string cure = {})
        : std::runtime_error(what), cure_(std::move(cure)) {}

    /// What the reader of the message can do; may be empty.
    const std::string& cure() const { return cure_; }

  private:
    std::string cure_;
};

/// A command line that makes no sense; its exit status differs from that of work that failed.
class usage_failure : public failure {
    using failure::failure;
};

/// What the runtime says of the call that failed last. Its texts tell the cure behind a semicolon, where there is
/// one; otherwise it is `cure`.
failure runtime_failure(const std::string& cure = {});

/// "17 (File exists)"
std::string error_number_text(unsigned number);

} // namespace tool
