// Finds the records of a vector by name: open addressing over record numbers, sized once.
//
// Threads: immutable after build(). Lifetime: holds numbers only; the records are given to every call.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "a2l/text_hash.h"

namespace lm::a2l {

class NameIndex {
  public:
    /// Enters the records in order; of two with one name the first counts. Returns the numbers of the
    /// others, ascending.
    template <typename Record>
    std::vector<std::uint32_t> build(const std::vector<Record>& records) {
        std::vector<std::uint32_t> hashes;
        hashes.reserve(records.size());
        for (const Record& record : records)
            hashes.push_back(hashText(record.name));
        std::vector<std::uint32_t> repeated;
        slots_.assign(std::bit_ceil(records.size() * 3 / 2 + 1), Slot{});
        const std::size_t mask = slots_.size() - 1;
        for (std::size_t i = 0; i < records.size(); ++i) {
            // The table of a large file is larger than the cache: ask for the slots of names to come.
            constexpr std::size_t kAhead = 16;
            if (i + kAhead < records.size()) __builtin_prefetch(&slots_[hashes[i + kAhead] & mask], 1);
            const std::uint32_t hash = hashes[i];
            Slot& slot = slots_[find(records, records[i].name, hash)];
            if (slot.number == kFree) {
                slot = {static_cast<std::uint32_t>(i), hash};
            } else {
                repeated.push_back(static_cast<std::uint32_t>(i));
            }
        }
        return repeated;
    }

    template <typename Record>
    const Record* lookUp(const std::vector<Record>& records, std::string_view name) const {
        if (slots_.empty()) return nullptr;
        const Slot& slot = slots_[find(records, name, hashText(name))];
        return slot.number == kFree ? nullptr : &records[slot.number];
    }

  private:
    static constexpr std::uint32_t kFree = 0xFFFFFFFF;

    struct Slot {
        std::uint32_t number = kFree;
        std::uint32_t hash = 0;
    };

    // The slot with this name, or the free one where it would stand.
    template <typename Record>
    std::size_t find(const std::vector<Record>& records, std::string_view name, std::uint32_t hash) const {
        const std::size_t mask = slots_.size() - 1;
        std::size_t at = hash & mask;
        while (slots_[at].number != kFree &&
               (slots_[at].hash != hash || records[slots_[at].number].name != name)) {
            at = (at + 1) & mask;
        }
        return at;
    }

    std::vector<Slot> slots_;
};

}  // namespace lm::a2l
