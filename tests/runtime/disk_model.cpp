// Following the seam, and what a crash leaves.
#include "tests/runtime/disk_model.h"

#include <algorithm>
#include <cstring>
#include <fstream>

namespace runtime_test {
namespace {
constexpr std::uint64_t sector = 512;

std::vector<char> read_file(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    std::vector<char> contents(std::filesystem::file_size(path));
    stream.read(contents.data(), static_cast<long>(contents.size()));
    return contents;
}
void write_file(const std::string& path, const std::vector<char>& contents) {
    std::ofstream(path, std::ios::binary).write(contents.data(), static_cast<long>(contents.size()));
}
void write_at(std::vector<char>& file, std::uint64_t offset, const char* contents, std::size_t size) {
    if (file.size() < offset + size) file.resize(offset + size);
    std::memcpy(file.data() + offset, contents, size);
}
} // namespace

disk_model::disk_model(const std::string& directory)
    : directory_(directory), is_on_disk_(std::filesystem::exists(directory)) {
    if (is_on_disk_)
        for (const auto& each : std::filesystem::directory_iterator(directory)) {
            const std::string name = each.path().filename();
            if (name == "image" || name == "undo" || name == "control") continue;
            files_[name] = std::make_shared<file>(file{read_file(each.path()), {}});
        }
    files_on_disk_ = files_;
    loom_disk_observe(&disk_model::see, this);
}

disk_model::~disk_model() { loom_disk_observe(nullptr, nullptr); }

int disk_model::see(const loom_disk_operation* operation, void* context) {
    auto& self = *static_cast<disk_model*>(context);
    const std::lock_guard guard(self.mutex_);
    // Questions change nothing.
    if (self.directory_ != operation->directory || operation->kind > LOOM_DISK_FLUSH_DIRECTORY) return 0;
    const int error = self.before_each ? self.before_each(self, *operation) : 0;
    self.follow(*operation, error);
    return error;
}

void disk_model::follow(const loom_disk_operation& operation, int error) {
    const std::string name = operation.name, new_name = operation.new_name;
    if (operation.kind == LOOM_DISK_WRITE) return write(*files_.at(name), operation, error);
    if (operation.kind == LOOM_DISK_FLUSH) return flush(*files_.at(name), error);
    if (error) return;
    switch (operation.kind) {
    case LOOM_DISK_CREATE:
        if (name.empty())
            files_[""] = std::make_shared<file>();
        else
            enter({{name, std::make_shared<file>()}});
        break;
    case LOOM_DISK_RESIZE: files_.at(name)->changes.push_back({operation.offset, {}, fate::pending}); break;
    case LOOM_DISK_REMOVE: enter({{name, nullptr}}); break;
    case LOOM_DISK_RENAME: enter({{new_name, files_.at(name)}, {name, nullptr}}); break;
    default:
        if (name == "..") {
            is_on_disk_ = true;
        } else {
            files_on_disk_ = files_;
            entry_changes_.clear();
        }
    }
}

/// A write that fails may have been carried out up to any byte.
void disk_model::write(file& to, const loom_disk_operation& operation, int error) {
    bytes contents;
    for (unsigned i = 0; i < operation.piece_count; ++i) {
        const auto* piece = static_cast<const char*>(operation.pieces[i].iov_base);
        contents.insert(contents.end(), piece, piece + operation.pieces[i].iov_len);
    }
    if (error) contents.resize(contents.size() / 2);
    if (!contents.empty()) to.changes.push_back({operation.offset, std::move(contents), fate::pending});
}

/// Behind a flush that failed its pages count as written: no later flush writes them again.
void disk_model::flush(file& to, int error) {
    bool all_flushed = true;
    for (change& each : to.changes) {
        if (each.is == fate::pending) each.is = error ? fate::lost_or_not : fate::flushed;
        all_flushed = all_flushed && each.is == fate::flushed;
    }
    if (!all_flushed) return;
    random_source none(0);
    for (const change& each : to.changes)
        put(to.contents, each, manner::all_kept, none);
    to.changes.clear();
}

void disk_model::enter(std::vector<entry_change> changes) {
    for (const entry_change& each : changes)
        if (each.is)
            files_[each.name] = each.is;
        else
            files_.erase(each.name);
    std::erase_if(changes, [](const entry_change& each) { return each.name.empty(); });
    entry_changes_.push_back(std::move(changes));
}

void disk_model::put(bytes& contents, const change& each, manner how, random_source& random) {
    if (each.contents.empty()) {
        contents.resize(std::max<std::size_t>(contents.size(), each.offset));
        return;
    }
    const std::uint64_t end = each.offset + each.contents.size();
    if (how == manner::all_kept)
        return write_at(contents, each.offset, each.contents.data(), each.contents.size());
    // The file may have grown for sectors that never came.
    if (random() % 2) contents.resize(std::max<std::size_t>(contents.size(), end));
    for (std::uint64_t at = each.offset; at < end;) {
        const std::uint64_t next = std::min(end, at / sector * sector + sector);
        if (random() % 2) write_at(contents, at, each.contents.data() + (at - each.offset), next - at);
        at = next;
    }
}

disk_model::bytes disk_model::contents_after(const file& each, manner how, random_source& random) {
    bytes contents = each.contents;
    for (const change& one : each.changes) {
        if (one.is == fate::flushed)
            put(contents, one, manner::all_kept, random);
        else if (how != manner::all_lost && (how != manner::operations || random() % 2))
            put(contents, one, how == manner::sectors ? how : manner::all_kept, random);
    }
    return contents;
}

/// What processes map is not the disk's. Any of it may have got there, or nothing.
void disk_model::leave_memory_files(const std::string& target, random_source& random) const {
    for (const char* name : {"image", "undo", "control"}) {
        if (random() % 2 || !std::filesystem::exists(directory_ + "/" + name)) continue;
        bytes contents = read_file(directory_ + "/" + name);
        if (random() % 2)
            for (std::size_t at = 0; at + sector <= contents.size(); at += sector)
                if (random() % 4 == 0) std::memset(contents.data() + at, 0, sector);
        write_file(target + "/" + name, contents);
    }
}

bool disk_model::crash_into(const std::string& target, random_source& random) const {
    if (!is_on_disk_ && random() % 2) return false;
    std::filesystem::create_directory(target);
    auto names = files_on_disk_;
    const unsigned of_names = random() % 3;
    for (const auto& changes : entry_changes_) {
        if (of_names == 0 || (of_names == 1 && random() % 2)) continue;
        for (const entry_change& each : changes)
            if (each.is)
                names[each.name] = each.is;
            else
                names.erase(each.name);
    }
    const auto how = static_cast<manner>(random() % 4);
    for (const auto& [name, each] : names)
        if (!name.empty()) write_file(target + "/" + name, contents_after(*each, how, random));
    leave_memory_files(target, random);
    return true;
}

} // namespace runtime_test
