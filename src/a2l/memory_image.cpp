#include "a2l/memory_image.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>

namespace lm::a2l {
namespace {

/// Commands that reading takes: one with the address in it, or one for the address and one per packet.
std::size_t commands(std::size_t size, std::size_t bytesPerPacket) {
    if (size <= bytesPerPacket) return 1;
    return 1 + (size + bytesPerPacket - 1) / bytesPerPacket;
}

bool shouldJoin(const MemorySpan& a, const MemorySpan& b, std::size_t bytesPerPacket) {
    if (b.address.address <= a.end()) return true;
    if (bytesPerPacket == 0) return false;
    const std::size_t together = std::max(a.end(), b.end()) - a.address.address;
    return commands(together, bytesPerPacket) <=
           commands(a.size, bytesPerPacket) + commands(b.size, bytesPerPacket) - 1;
}

}  // namespace

std::vector<MemorySpan> merged(std::vector<MemorySpan> spans, std::size_t bytesPerPacket) {
    const auto key = [](const MemorySpan& span) {
        return std::pair(span.address.extension, span.address.address);
    };
    std::sort(spans.begin(), spans.end(), [&](const auto& a, const auto& b) { return key(a) < key(b); });
    std::vector<MemorySpan> all;
    for (const MemorySpan& span : spans) {
        if (span.size == 0) continue;
        if (all.empty() || all.back().address.extension != span.address.extension ||
            !shouldJoin(all.back(), span, bytesPerPacket)) {
            all.push_back(span);
            continue;
        }
        MemorySpan& last = all.back();
        last.size = std::max(last.end(), span.end()) - last.address.address;
    }
    return all;
}

void MemoryImage::add(xcp::Address address, std::span<const std::uint8_t> bytes) {
    if (bytes.empty()) return;
    std::uint64_t start = address.address;
    std::uint64_t end = start + bytes.size();
    auto first = pieces_.upper_bound({address.extension, address.address});
    if (first != pieces_.begin()) {
        const auto before = std::prev(first);
        const bool touches =
            before->first.first == address.extension && before->first.second + before->second.size() >= start;
        if (touches) first = before;
    }
    auto last = first;
    for (; last != pieces_.end() && last->first.first == address.extension && last->first.second <= end;
         ++last) {
        start = std::min<std::uint64_t>(start, last->first.second);
        end = std::max(end, last->first.second + last->second.size());
    }
    if (first != last && std::next(first) == last && first->first.second == start) {
        std::vector<std::uint8_t>& piece = first->second;
        // It grows at its end, as it does when memory is read from front to back.
        if (piece.size() < end - start) piece.resize(end - start);
        std::memcpy(piece.data() + (address.address - start), bytes.data(), bytes.size());
        return;
    }
    std::vector<std::uint8_t> joined(end - start);
    for (auto piece = first; piece != last; ++piece)
        std::memcpy(joined.data() + (piece->first.second - start), piece->second.data(),
                    piece->second.size());
    std::memcpy(joined.data() + (address.address - start), bytes.data(), bytes.size());
    pieces_.erase(first, last);
    pieces_.emplace(Key{address.extension, static_cast<std::uint32_t>(start)}, std::move(joined));
}

Result<void> MemoryImage::load(std::span<const MemorySpan> spans, const ReadMemory& read) {
    for (const MemorySpan& span : spans) {
        const auto bytes = read(span.address, span.size);
        if (!bytes) return bytes.error();
        if (bytes.value().size() != span.size) {
            return Error{ErrorCode::protocolError, "read " + std::to_string(bytes.value().size()) +
                                                       " bytes of memory instead of " +
                                                       std::to_string(span.size)};
        }
        add(span.address, bytes.value());
    }
    return {};
}

const std::uint8_t* MemoryImage::at(xcp::Address address, std::size_t size) const {
    auto piece = pieces_.upper_bound({address.extension, address.address});
    if (piece == pieces_.begin()) return nullptr;
    --piece;
    if (piece->first.first != address.extension) return nullptr;
    const std::size_t offset = address.address - piece->first.second;
    return offset + size <= piece->second.size() ? piece->second.data() + offset : nullptr;
}

std::uint8_t* MemoryImage::at(xcp::Address address, std::size_t size) {
    return const_cast<std::uint8_t*>(std::as_const(*this).at(address, size));  // NOLINT(*-const-cast)
}

}  // namespace lm::a2l
