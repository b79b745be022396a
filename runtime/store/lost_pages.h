// Pages of an image that cannot be read any more: the disk fails, is full where the file has a hole, or somebody
// has cut the file short. The system tells by SIGBUS, to which a process has no answer of its own.
#pragma once

#include "runtime/store/control.h"

#include <string>

namespace loom {

/// While one protects the memory of an image, a page of it that is lost is told with the cure on the standard
/// error stream, who opens the database next makes its image anew, and the process ends by the signal. Signals for
/// other memory go to whoever had them before.
class lost_page_guard {
  public:
    lost_page_guard() = default;
    ~lost_page_guard();
    lost_page_guard(const lost_page_guard&) = delete;
    lost_page_guard& operator=(const lost_page_guard&) = delete;
    void protect(const std::string& path, const void* memory, u64 size, control& trust);

  private:
    int slot_ = -1;
};

} // namespace loom
