// Making, judging and reading the control page.
#include "runtime/store/control.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace loom {
namespace {
constexpr char magic[8] = {'L', 'O', 'O', 'M', 'C', 'T', 'R', 'L'};
constexpr u32 control_version = 2;
constexpr u64 page_bytes = 4096;
constexpr char control_name[] = "control";

u64 checksum_of_trust(const control_page& page) {
    const u64 sum = checksum_of(&page, offsetof(control_page, checksum));
    return sum ? sum : 1; // zero says that there is no trust
}

using place_words = std::array<u64, 6>;
place_words words_of(const journal_end& end) {
    const journal_place& place = end.place;
    return {place.number, place.previous.low, place.previous.high, place.file, place.offset, end.first_of_file};
}
} // namespace

void name_boot(char (&boot)[40]) {
    std::memset(boot, 0, sizeof boot);
    const int file = ::open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC);
    if (file < 0) return;
    if (::read(file, boot, 36) != 36) std::memset(boot, 0, sizeof boot);
    ::close(file);
}

control::~control() {
    if (page_) munmap(page_, page_bytes);
}

int control::open(const disk_directory& directory, mode_t mode) {
    const int file = openat(directory.descriptor(), control_name, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, mode);
    if (file < 0) return errno;
    struct stat status {};
    int error = fstat(file, &status) == 0 ? 0 : errno;
    if (!error && status.st_size == 0) fchmod(file, mode);
    if (!error && static_cast<u64>(status.st_size) < page_bytes) error = posix_fallocate(file, 0, page_bytes);
    void* memory = MAP_FAILED;
    if (!error) {
        memory = mmap(nullptr, page_bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        if (memory == MAP_FAILED) error = errno;
    }
    ::close(file);
    if (!error) page_ = static_cast<control_page*>(memory);
    return error;
}

bool control::belongs_to(const u8 (&incarnation)[16]) const {
    return std::memcmp(page_->magic, magic, sizeof magic) == 0 && page_->version == control_version &&
           page_->record_size == sizeof(control_page) &&
           std::memcmp(page_->incarnation, incarnation, sizeof incarnation) == 0;
}

bool control::trusts(const u8 (&incarnation)[16], const image_identity& image) const {
    journal_end end;
    return belongs_to(incarnation) && page_->checksum == checksum_of_trust(*page_) && image.boot[0] != 0 &&
           std::memcmp(page_->boot, image.boot, sizeof image.boot) == 0 && page_->image_device == image.device &&
           page_->image_number == image.number && read_end(end);
}

void control::distrust() { page_->checksum = 0; }

void control::trust(const u8 (&incarnation)[16], const image_identity& image, u64 making, const journal_end& end) {
    page_->checksum = 0;
    std::memcpy(page_->magic, magic, sizeof magic);
    page_->version = control_version;
    page_->record_size = sizeof(control_page);
    std::memcpy(page_->incarnation, incarnation, sizeof incarnation);
    std::memcpy(page_->boot, image.boot, sizeof image.boot);
    page_->image_device = image.device;
    page_->image_number = image.number;
    page_->making = making;
    publish(end);
    publish(end); // whatever the other place has held is gone
    page_->open_section = 0;
    page_->failed = 0;
    for (std::atomic<u64>& word : page_->owners.taken)
        word = 0;
    page_->owners.unswept = 1;
    page_->checksum = checksum_of_trust(*page_);
}

bool control::read_end(journal_end& end) const {
    // A place that is read is written anew only two commits later; who reads that slowly reads again. Of a turn
    // that was damaged nothing depends: the later one of two whole places holds.
    for (int tries = 0; tries < 100; ++tries) {
        bool found = false;
        for (const published_place& published : page_->places) {
            place_words words;
            const u64 check = published.check.load(std::memory_order_acquire);
            for (std::size_t i = 0; i < words.size(); ++i)
                words[i] = published.words[i].load(std::memory_order_relaxed);
            std::atomic_thread_fence(std::memory_order_acquire);
            if (published.check.load(std::memory_order_relaxed) != check ||
                check != checksum_of(words.data(), sizeof words) || words[3] >= journal_files ||
                (found && words[0] < end.place.number))
                continue;
            // Of one commit the later place is in a file that begins behind it.
            if (found && words[0] == end.place.number && words[5] < end.first_of_file) continue;
            end = {{words[0], {words[1], words[2]}, static_cast<u32>(words[3]), 0, words[4]}, words[5]};
            found = true;
        }
        if (found) return true;
    }
    return false;
}

void control::publish(const journal_end& end) {
    const u64 next = page_->turn.load(std::memory_order_relaxed) + 1;
    published_place& published = page_->places[next % 2];
    const place_words words = words_of(end);
    published.check.store(0, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    for (std::size_t i = 0; i < words.size(); ++i)
        published.words[i].store(words[i], std::memory_order_relaxed);
    published.check.store(checksum_of(words.data(), sizeof words), std::memory_order_release);
    page_->turn.store(next, std::memory_order_release);
}

} // namespace loom
