// Finds the records of a vector by name: open addressing over record numbers, sized once.
//
// Threads: immutable after build(). Lifetime: holds numbers only; the records are given to every call.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace lm::a2l {

class NameIndex {
  public:
    /// Enters the records in order; of two with one name the first counts. Returns the numbers of the
    /// others, ascending.
    template <typename Record>
    std::vector<std::uint32_t> build(const std::vector<Record>& records) {
        std::vector<std::uint32_t> repeated;
        slots_.assign(std::bit_ceil(records.size() * 2 + 1), Slot{});
        for (std::size_t i = 0; i < records.size(); ++i) {
            const std::uint32_t hash = hashOf(records[i].name);
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
        const Slot& slot = slots_[find(records, name, hashOf(name))];
        return slot.number == kFree ? nullptr : &records[slot.number];
    }

  private:
    static constexpr std::uint32_t kFree = 0xFFFFFFFF;

    struct Slot {
        std::uint32_t number = kFree;
        std::uint32_t hash = 0;
    };

    // Eight bytes per step; names are short and the table is large, so distribution counts, not strength.
    static std::uint32_t hashOf(std::string_view name) {
        constexpr std::uint64_t kFactor = 0x9E3779B97F4A7C15;
        std::uint64_t hash = name.size() * kFactor;
        while (!name.empty()) {
            std::uint64_t part = 0;
            const std::size_t length = name.size() < sizeof(part) ? name.size() : sizeof(part);
            std::memcpy(&part, name.data(), length);
            hash = (hash ^ part) * kFactor;
            hash ^= hash >> 32U;
            name.remove_prefix(length);
        }
        return static_cast<std::uint32_t>(hash);
    }

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
