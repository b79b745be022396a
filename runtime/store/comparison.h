// What base and journal hold, put together in memory of this process and compared with the image: the proof that
// nothing which is in use was kept from the journal. Read by the checking mode after each commit, and by a deep
// verification. Which bytes may differ is the database's to say (runtime/database/pinned.h).
#pragma once

#include "runtime/store/store.h"

namespace loom {

class committed_image {
  public:
    explicit committed_image(store& files) : files_(files) {}
    committed_image(const committed_image&) = delete;
    committed_image& operator=(const committed_image&) = delete;
    ~committed_image();

    /// Brings it to the latest commit: from the base where that has changed since, otherwise by the entries that
    /// came since. Nobody may commit meanwhile. 0, or an error number with a text.
    u32 update();
    u64 number() const { return place_.number; }
    const std::byte* bytes() const { return memory_; }

    /// Calls `visit` with each run of bytes, among the first `size`, that are not those of `image`. Ranges of
    /// `pinned`, which are in order and do not touch, are left out.
    void each_difference(const std::byte* image, u64 size, std::span<const value_range> pinned,
                         const std::function<void(const value_range&)>& visit) const;

  private:
    u32 begin_anew();

    store& files_;
    std::byte* memory_ = nullptr;
    u64 size_ = 0;
    u64 absorbed_ = 0;
    journal_place place_;
};

} // namespace loom
