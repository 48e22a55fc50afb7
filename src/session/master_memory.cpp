#include "session/master_memory.h"

#include "core/log.h"
#include "session/byte_access.h"
#include "session/masked_write.h"
#include "xcp/memory.h"

namespace lm::session {

Result<std::vector<std::uint8_t>> MasterMemory::read(std::string_view /*name*/, xcp::Address address,
                                                     std::size_t size) {
    return options_.wholeUnits ? uploadBytes(master_, address, size) : master_.upload(address, size);
}

Result<void> MasterMemory::write(std::string_view /*name*/, xcp::Address address,
                                 std::span<const std::uint8_t> bytes) {
    if (!options_.wholeUnits) return master_.download(address, bytes);
    return downloadBytes(master_, address, bytes, options_.writesBlocks);
}

Result<bool> MasterMemory::writeBits(const value::Element& element, const std::vector<std::uint8_t>& bytes) {
    for (const MaskedWord& word : maskedWords(element, bytes, master_.connectInfo().byteOrder())) {
        const auto stored = master_.modifyBits(word.address, word.mask, word.bits);
        if (stored) continue;
        if (stored.error().detail != xcp::kErrCmdUnknown) return stored.error();
        log::warn("{}: the ECU has no MODIFY_BITS, the bits beside it are written as they were read",
                  element.name);
        options_.modifiesBits = false;
        return false;
    }
    return true;
}

Result<void> MasterMemory::confirm(const std::function<Result<void>()>& step) {
    return xcp::inStep(master_, step);
}

Result<void> MasterMemory::openForWriting() {
    return master_.unlockBefore(xcp::Resource::calPag);
}

std::shared_ptr<const void> MasterMemory::finishing() {
    using Finishing = xcp::Connection::Finishing;
    return std::shared_ptr<const Finishing>(new Finishing(master_.finishing()));
}

/// Only what is read by one command each; where one address stands for several bytes, more would be read.
void foreseeReads(xcp::Master& master, std::span<const MemoryPiece> pieces) {
    const xcp::ConnectInfo slave = master.connectInfo();
    if (slave.maxCto == 0 || slave.granularity() != 1 || !master.usesShortUpload()) return;
    const std::size_t most = xcp::Memory::elementsPerResponse(slave);
    std::vector<xcp::Packet> commands;
    commands.reserve(pieces.size());
    for (const MemoryPiece& piece : pieces) {
        if (piece.size > 0 && piece.size <= most)
            commands.push_back(xcp::buildShortUpload(static_cast<std::uint8_t>(piece.size), piece.address,
                                                     slave.byteOrder()));
    }
    master.foresee(commands);
}

std::size_t MasterMemory::bytesPerPacket() const {
    const xcp::ConnectInfo slave = master_.connectInfo();
    return slave.maxCto == 0 ? 0 : xcp::Memory::elementsPerResponse(slave) * slave.granularity();
}

}  // namespace lm::session
