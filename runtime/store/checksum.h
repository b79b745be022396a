// Checksums of what lies on the disk: 64 bits for pages and records, digests of 128 bits for journal entries. The
// algorithm (XXH3) stands in checksum.cpp alone.
#pragma once

#include "frame/basic_types.h"

#include <cstddef>

namespace loom {
using namespace trellis;

u64 checksum_of(const void* bytes, std::size_t size);

struct digest {
    u64 low = 0;
    u64 high = 0;
    friend bool operator==(const digest&, const digest&) = default;
};

/// The digest of bytes that come piece by piece.
class digest_stream {
  public:
    digest_stream();
    digest_stream(const digest_stream&) = delete;
    digest_stream& operator=(const digest_stream&) = delete;
    void add(const void* bytes, std::size_t size);
    digest result() const;

  private:
    alignas(64) std::byte state_[576];
};

/// The checksum of a record whose last member, `checksum`, covers all before it.
template <class Record>
u64 checksum_of_record(const Record& record) {
    return checksum_of(&record, offsetof(Record, checksum));
}

} // namespace loom
