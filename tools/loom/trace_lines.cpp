#include "trace_lines.h"

#include "bundles.h"
#include "failure.h"

#include <algorithm>
#include <ctime>
#include <dlfcn.h>
#include <iostream>

namespace tool {
namespace {

constexpr std::uint32_t error_level = 3;

std::string level_name(std::uint32_t level) {
    switch (level) {
    case 0: return "fatal";
    case 3: return "error";
    case 6: return "info ";
    case 7: return "debug";
    default: return "lev " + std::to_string(level);
    }
}

/// The library that holds an address, or an empty text.
std::string library_of(const void* address) {
    Dl_info info{};
    return ::dladdr(address, &info) != 0 && info.dli_fname ? info.dli_fname : "";
}

/// "2024-05-01T12:00:00.000000000Z"
std::string time_text(std::uint64_t nanoseconds) {
    constexpr std::uint64_t per_second = 1'000'000'000;
    const auto seconds = static_cast<std::time_t>(nanoseconds / per_second);
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    char text[48];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text + length, sizeof text - length, ".%09uZ", static_cast<unsigned>(nanoseconds % per_second));
    return text;
}

/// What is missing in the file, on the standard error stream.
void tell_losses(const std::string& path, const loom_trace_losses& losses) {
    const auto tell = [&](std::uint64_t count, const char* one, const char* many) {
        if (count != 0) std::cerr << "loom: " << path << ": " << count << (count == 1 ? one : many) << '\n';
    };
    tell(losses.records, " record was lost by its writer", " records were lost by their writers");
    tell(losses.blocks, " block is missing: its writer was killed while it wrote",
         " blocks are missing: their writers were killed while they wrote");
    tell(losses.open_writers, " writer has not closed the file: it still writes, or its last records are lost",
         " writers have not closed the file: they still write, or their last records are lost");
}

} // namespace

kept_record::kept_record(const loom_trace_record& record)
    : record_(record), module_(record.module_name ? record.module_name : "") {
    for (std::size_t i = 0; i < record.argument_count; ++i)
        if (record.arguments[i].text) texts_[i].assign(record.arguments[i].text, record.arguments[i].text_length);
}

loom_trace_record kept_record::view() const {
    loom_trace_record record = record_;
    record.module_name = module_.c_str();
    for (std::size_t i = 0; i < record.argument_count; ++i)
        if (record.arguments[i].text) record.arguments[i].text = texts_[i].data();
    return record;
}

trace_texts::trace_texts() : decoder_(loom_trace_decoder_create(), &loom_trace_decoder_release) {
    const auto add = [&](const std::string& path) {
        const std::uint32_t error = loom_trace_decoder_add(decoder_.get(), path.c_str());
        if (error != 0 && error != LOOM_ENOENT) throw failure(loom_error_text());
    };
    add(library_of(reinterpret_cast<const void*>(&loom_trace_format)));
    each_module([&](const loom_module_node& module) { add(bundles::library_path(module.name)); });
}

std::string trace_texts::line(const kept_record& record) const {
    const loom_trace_record view = record.view();
    std::string message(loom_trace_format(decoder_.get(), &view, nullptr, 0) + 1, '\0');
    message.resize(loom_trace_format(decoder_.get(), &view, message.data(), message.size()));
    return level_name(view.level) + " " + (*view.module_name ? view.module_name : "-") + ": " + message;
}

void print_trace_file(std::ostream& out, const std::string& path) {
    std::vector<kept_record> records;
    const auto keep = [](const loom_trace_record* record, void* context) {
        static_cast<std::vector<kept_record>*>(context)->emplace_back(*record);
    };
    loom_trace_losses losses{};
    const std::uint32_t error = loom_trace_read_file(path.c_str(), keep, &records, &losses);
    const std::string reason = error ? loom_error_text() : "";
    std::stable_sort(records.begin(), records.end(),
                     [](const auto& a, const auto& b) { return a.view().time < b.view().time; });
    const trace_texts texts;
    for (const kept_record& record : records) {
        const loom_trace_record view = record.view();
        out << time_text(view.time) << " [" << view.thread << "] " << texts.line(record) << '\n';
    }
    out.flush();
    tell_losses(path, losses);
    if (error)
        throw failure(reason, records.empty()
                                  ? "name a file that a program wrote with loom_trace_open, or loom with --trace"
                                  : std::to_string(records.size()) + " records before this place are whole");
}

trace_recording::trace_recording(const std::string& path) {
    constexpr std::uint32_t diagnostics = 7;
    if (loom_trace_open(path.c_str()) != 0)
        throw runtime_failure("name a file in a directory that is there and that you may write to");
    loom_trace_set_level(nullptr, diagnostics);
}

trace_recording::~trace_recording() { loom_trace_close(); }

trace_watch::trace_watch() {
    const auto keep = [](const loom_trace_record* record, void* context) {
        auto& self = *static_cast<trace_watch*>(context);
        const std::lock_guard lock(self.mutex_);
        if (record->level <= error_level) self.errors_.emplace_back(*record);
    };
    loom_trace_set_tap(keep, this);
}

trace_watch::~trace_watch() { loom_trace_set_tap(nullptr, nullptr); }

std::string trace_watch::latest_line() const {
    const std::lock_guard lock(mutex_);
    return errors_.empty() ? "" : trace_texts().line(errors_.back());
}

} // namespace tool
