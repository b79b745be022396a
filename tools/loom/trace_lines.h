// Trace records as lines of text: of a file, and of what an operation has just emitted. The runtime stores records
// and knows their form; texts come out of the loaded libraries.
#pragma once

#include <loom_runtime/trace.h>

#include <array>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace tool {

/// A record that outlives the callback which showed it.
class kept_record {
  public:
    explicit kept_record(const loom_trace_record& record);
    kept_record(kept_record&&) = default;
    kept_record& operator=(kept_record&&) = default;

    /// The record with its texts, valid as long as this object stays where it is.
    loom_trace_record view() const;

  private:
    loom_trace_record record_;
    std::string module_;
    std::array<std::string, LOOM_TRACE_ARGUMENTS_MAX> texts_;
};

/// Texts of all libraries that belong to loaded bundles, and of the runtime.
class trace_texts {
  public:
    trace_texts();
    /// "error  module: message"
    std::string line(const kept_record& record) const;

  private:
    std::unique_ptr<loom_trace_decoder, decltype(&loom_trace_decoder_release)> decoder_;
};

/// Prints a trace file, one line per record with its time. Throws failure when the file cannot be read to its end;
/// the records before that place are printed first.
void print_trace_file(std::ostream& out, const std::string& path);

/// Writes everything that is traced while it lives, down to level 7, into a file.
class trace_recording {
  public:
    explicit trace_recording(const std::string& path);
    ~trace_recording();
    trace_recording(const trace_recording&) = delete;
    trace_recording& operator=(const trace_recording&) = delete;
};

/// Keeps the errors that are traced while it lives. One at a time.
class trace_watch {
  public:
    trace_watch();
    ~trace_watch();
    trace_watch(const trace_watch&) = delete;
    trace_watch& operator=(const trace_watch&) = delete;

    /// The latest error as a line, or nothing.
    std::string latest_line() const;

  private:
    mutable std::mutex mutex_;
    std::vector<kept_record> errors_;
};

} // namespace tool
