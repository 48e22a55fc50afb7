#include "session/byte_access.h"

#include <algorithm>
#include <utility>

namespace lm::session {
namespace {

/// The whole units that bytes lie in.
struct Units {
    xcp::Address address;
    std::size_t size;
    std::size_t before;  ///< bytes of the first one that are not asked for
};

Units unitsOf(const xcp::Master& master, xcp::Address address, std::size_t size) {
    const std::size_t unit = std::max<std::size_t>(master.connectInfo().granularity(), 1);
    const std::size_t before = address.address % unit;
    const std::size_t whole = (before + size + unit - 1) / unit * unit;
    return {{address.address - static_cast<std::uint32_t>(before), address.extension}, whole, before};
}

}  // namespace

Result<std::vector<std::uint8_t>> uploadBytes(xcp::Master& master, xcp::Address address, std::size_t size) {
    const Units units = unitsOf(master, address, size);
    auto bytes = master.upload(units.address, units.size);
    if (!bytes || units.size == size) return bytes;
    std::vector<std::uint8_t>& all = bytes.value();
    return std::vector<std::uint8_t>(all.begin() + static_cast<std::ptrdiff_t>(units.before),
                                     all.begin() + static_cast<std::ptrdiff_t>(units.before + size));
}

Result<void> downloadBytes(xcp::Master& master, xcp::Address address, std::span<const std::uint8_t> bytes,
                           bool inBlocks) {
    const auto download = [&](xcp::Address to, std::span<const std::uint8_t> wholeUnits) {
        return inBlocks ? master.downloadBlocks(to, wholeUnits) : master.download(to, wholeUnits);
    };
    const Units units = unitsOf(master, address, bytes.size());
    if (units.size == bytes.size()) return download(address, bytes);
    auto whole = xcp::inStep(master, [&] { return master.upload(units.address, units.size); });
    if (!whole) return whole.error();
    std::copy(bytes.begin(), bytes.end(), whole.value().begin() + static_cast<std::ptrdiff_t>(units.before));
    return download(units.address, whole.value());
}

}  // namespace lm::session
