// The memory of an ECU as an image in a file holds it.
//
// Threads: one at a time. Lifetime: the file is borrowed.
#pragma once

#include "params/memory_file.h"
#include "session/ecu_memory.h"

namespace lm::session {

/// Errors (notFound): "NAME: the image holds no bytes at 0xADDRESS", "NAME: the image holds no bytes of
/// address extension N".
class FileMemory final : public IMemory {
  public:
    explicit FileMemory(params::MemoryFile& file) : file_(file) {}

    Result<std::vector<std::uint8_t>> read(std::string_view name, xcp::Address address,
                                           std::size_t size) override;
    Result<void> write(std::string_view name, xcp::Address address,
                       std::span<const std::uint8_t> bytes) override;
    bool modifiesBits() const override { return false; }
    Result<bool> writeBits(const value::Element& element, const std::vector<std::uint8_t>& bytes) override;
    Result<void> confirm(const std::function<Result<void>()>& step) override { return step(); }
    Result<void> openForWriting() override { return {}; }
    std::shared_ptr<const void> finishing() override { return nullptr; }
    /// A gap of the image has no bytes.
    std::size_t bytesPerPacket() const override { return 0; }

  private:
    Result<void> check(std::string_view name, xcp::Address address, std::size_t size) const;

    params::MemoryFile& file_;
};

}  // namespace lm::session
