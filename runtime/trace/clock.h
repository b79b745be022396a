// The clock of trace records. Emitting reads the cheapest counter that all processors share; readers turn it into
// the time of day, by comparing both clocks at the start of the process and at the time of reading.
#pragma once

#include "frame/basic_types.h"

#include <ctime>

#ifdef __x86_64__
#include <x86intrin.h>
#endif

namespace loom {
using namespace trellis;

/// Nanoseconds since 1970-01-01T00:00:00Z.
inline u64 time_now() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return static_cast<u64>(time.tv_sec) * 1000000000u + static_cast<u64>(time.tv_nsec);
}

/// What a record keeps as its time.
inline u64 ticks() {
#ifdef __x86_64__
    return __rdtsc();
#else
    return time_now();
#endif
}

/// Turns ticks into times; as exact as the two looks at both clocks.
class tick_reader {
  public:
    tick_reader() : now_{time_now(), ticks()} {
        const u64 elapsed = now_.ticks - start().ticks;
        if (elapsed) rate_ = static_cast<double>(now_.time - start().time) / static_cast<double>(elapsed);
    }
    u64 time_of(u64 tick) const {
        const double since = static_cast<double>(static_cast<i64>(tick - now_.ticks)) * rate_;
        return now_.time + static_cast<u64>(static_cast<i64>(since));
    }
    /// The first look, made before the first record.
    struct look {
        u64 time;
        u64 ticks;
    };
    static const look& start() {
        static const look first{time_now(), loom::ticks()};
        return first;
    }

  private:
    look now_;
    double rate_ = 1;
};

} // namespace loom
