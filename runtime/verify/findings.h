// What a verification has found so far. Nothing is told before the end, when no lock is held any more.
#pragma once

#include "frame/basic_types.h"

#include <loom_runtime/verify.h>

#include <string>
#include <utility>
#include <vector>

namespace loom {
using namespace trellis;

class findings {
  public:
    void damage(std::string place, std::string meaning) {
        add(LOOM_FINDING_DAMAGE, result.damaged, std::move(place), std::move(meaning));
    }
    void lost(std::string place, std::string meaning) {
        add(LOOM_FINDING_LOST, result.lost, std::move(place), std::move(meaning));
    }
    void unchecked(std::string place, std::string meaning) {
        add(LOOM_FINDING_UNCHECKED, result.unchecked, std::move(place), std::move(meaning));
    }
    void tell(loom_finding_fn report, void* context) const {
        for (const finding& each : all_) {
            const loom_finding told{each.kind, each.place.c_str(), each.meaning.c_str()};
            report(&told, context);
        }
    }

    loom_verify_result result{};

  private:
    struct finding {
        u32 kind;
        std::string place;
        std::string meaning;
    };
    /// A database that is damaged through and through is not told in full.
    static constexpr u64 most_of_a_kind = 1000;

    void add(u32 kind, u64& count, std::string place, std::string meaning) {
        if (++count <= most_of_a_kind) all_.push_back({kind, std::move(place), std::move(meaning)});
    }

    std::vector<finding> all_;
};

} // namespace loom
