// Texts kept for as long as their owner lives, in large chunks instead of one allocation each.
//
// Threads: one at a time. Lifetime: the views returned stay valid until the store is destroyed; moving the
// store keeps them.
#pragma once

#include <array>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "a2l/text_hash.h"

namespace lm::a2l {

class TextStore {
  public:
    std::string_view keep(std::string_view text) {
        if (text.empty()) return {};
        if (text.size() > left_) grow(text.size());
        char* copy = next_;
        std::memcpy(copy, text.data(), text.size());
        next_ += text.size();
        left_ -= text.size();
        return {copy, text.size()};
    }

  private:
    static constexpr std::size_t kChunk = std::size_t{256} << 10U;

    void grow(std::size_t least) {
        const std::size_t size = least > kChunk ? least : kChunk;
        chunks_.push_back(std::unique_ptr<char[]>(new char[size]));  // not cleared: pages stay untouched
        next_ = chunks_.back().get();
        left_ = size;
    }

    std::vector<std::unique_ptr<char[]>> chunks_;
    char* next_ = nullptr;
    std::size_t left_ = 0;
};

/// Keeps a text that is likely to come again (a conversion's name, a unit, a format) once: remembers the last
/// text per hash, so that its memory is bounded and a rare text is merely kept twice.
class TextInterner {
  public:
    explicit TextInterner(TextStore& store) : store_(store) {}

    std::string_view keep(std::string_view text) {
        if (text.empty()) return {};
        std::string_view& last = recent_[hashText(text) % kSlots];
        if (last != text) last = store_.keep(text);
        return last;
    }

  private:
    static constexpr std::size_t kSlots = 4096;

    TextStore& store_;
    std::array<std::string_view, kSlots> recent_{};
};

}  // namespace lm::a2l
