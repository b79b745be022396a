#include "whole_file.h"

#include "failure.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace tool {
namespace {

/// How the files of databases begin, and those of the former kind, and backups.
bool begins_like_part_of_database(const fs::path& path) {
    constexpr std::array<const char*, 7> magics = {"LOOMBASE", "LOOMARNA", "LOOMSUMS", "LOOMJRNL",
                                                   "LOOMUNDO", "LOOMCTRL", "LOOMBKUP"};
    std::array<char, 8> magic{};
    std::ifstream file(path, std::ios::binary);
    if (!file.read(magic.data(), magic.size())) return false;
    return std::ranges::any_of(
        magics, [&](const char* each) { return std::memcmp(each, magic.data(), magic.size()) == 0; });
}

/// A directory of an absolute path as the system calls want it.
std::string directory_of(const std::string& path) {
    const fs::path parent = fs::path(path).parent_path();
    return parent.empty() ? "." : parent.string();
}

} // namespace

void refuse_part_of_database(const std::string& path) {
    std::error_code none;
    const fs::path real = fs::weakly_canonical(path, none);
    const bool in_database = begins_like_part_of_database(real.parent_path() / "superblock");
    const bool is_part = fs::is_regular_file(real, none) && begins_like_part_of_database(real);
    if (in_database || is_part || begins_like_part_of_database(real / "superblock"))
        throw failure(path + ": is a database, or a part of one or of a backup, which is not overwritten",
                      "name another file");
}

whole_file::whole_file(const std::string& path) : path_(path) {
    refuse_part_of_database(path);
    std::error_code none;
    const fs::file_status status = fs::status(path, none);
    if (fs::is_directory(status)) {
        errno = EISDIR;
        fail();
    }
    if (fs::exists(status) && !fs::is_regular_file(status)) {
        stream_.open(path, std::ios::binary);
        if (!stream_) fail();
        return;
    }
    descriptor_ = ::open(directory_of(path).c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666);
    if (descriptor_ < 0 && (errno == EOPNOTSUPP || errno == EISDIR)) {
        temporary_ = path + ".unfinished." + std::to_string(::getpid());
        descriptor_ = ::open(temporary_.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666);
    }
    if (descriptor_ < 0) {
        temporary_.clear();
        fail();
    }
    stream_.open("/proc/self/fd/" + std::to_string(descriptor_), std::ios::binary);
    if (!stream_) fail();
}

whole_file::~whole_file() {
    if (!temporary_.empty()) std::remove(temporary_.c_str());
    if (descriptor_ >= 0) ::close(descriptor_);
}

void whole_file::finish() {
    stream_.close();
    if (!stream_) fail();
    if (descriptor_ < 0) return;
    const std::string self = "/proc/self/fd/" + std::to_string(descriptor_);
    if (temporary_.empty()) {
        if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path_.c_str(), AT_SYMLINK_FOLLOW) == 0) return;
        if (errno != EEXIST) fail();
        // Only a rename takes the place of what is there, and that wants a name, for a moment.
        temporary_ = path_ + ".unfinished." + std::to_string(::getpid());
        std::remove(temporary_.c_str());
        if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, temporary_.c_str(), AT_SYMLINK_FOLLOW) != 0) {
            temporary_.clear();
            fail();
        }
    }
    if (std::rename(temporary_.c_str(), path_.c_str()) != 0) fail();
    temporary_.clear();
}

void whole_file::fail() const {
    throw failure(path_ + ": cannot be written: " + std::strerror(errno),
                  "name a file in a directory that is there, that has room and that you may write to");
}

} // namespace tool
