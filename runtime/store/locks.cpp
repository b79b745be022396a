// Locks of open file descriptions.
#include "runtime/store/locks.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace loom {
namespace {
constexpr off_t first_lock_byte = off_t{1} << 60;

struct flock describe(short type, lock_byte byte) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = first_lock_byte + static_cast<off_t>(byte);
    lock.l_len = 1;
    return lock;
}

bool set_lock(int file, short type, lock_byte byte, bool wait) {
    struct flock lock = describe(type, byte);
    int result;
    do
        result = fcntl(file, wait ? F_OFD_SETLKW : F_OFD_SETLK, &lock);
    while (result < 0 && errno == EINTR);
    return result == 0;
}
} // namespace

bool lock_byte_for_reading(int file, lock_byte byte, bool wait) { return set_lock(file, F_RDLCK, byte, wait); }
bool lock_byte_for_writing(int file, lock_byte byte, bool wait) { return set_lock(file, F_WRLCK, byte, wait); }
void unlock_byte(int file, lock_byte byte) { set_lock(file, F_UNLCK, byte, false); }

bool is_locked_by_another(int file, lock_byte byte) {
    struct flock lock = describe(F_WRLCK, byte);
    return fcntl(file, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

directory_lock::directory_lock(int directory)
    : descriptor_(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    while (descriptor_ >= 0 && flock(descriptor_, LOCK_EX) != 0 && errno == EINTR) {
    }
}

directory_lock::~directory_lock() {
    if (descriptor_ >= 0) close(descriptor_);
}

bool directory_lock::is_taken(int directory) {
    const int descriptor = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool taken = descriptor >= 0 && flock(descriptor, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    if (descriptor >= 0) close(descriptor);
    return taken;
}

} // namespace loom
