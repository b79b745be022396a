// A file that a command writes: it appears under its name when it is whole, and never in place of a database.
#pragma once

#include <fstream>
#include <string>

namespace tool {

/// Throws failure when a file of that path would lie in a database, or take the place of one or of a part of one.
void refuse_part_of_database(const std::string& path);

class whole_file {
  public:
    /// Begins a file without a name where the file system has such, so that nothing is left of a command that is
    /// killed. What is no regular file, such as a terminal, is written at once.
    explicit whole_file(const std::string& path);
    ~whole_file();
    whole_file(const whole_file&) = delete;
    whole_file& operator=(const whole_file&) = delete;

    std::ostream& stream() { return stream_; }
    /// Gives it its name, in place of what had that before.
    void finish();

  private:
    [[noreturn]] void fail() const;
    std::string path_;
    std::string temporary_; ///< name that it has meanwhile; empty without one
    int descriptor_ = -1;
    std::ofstream stream_;
};

} // namespace tool
