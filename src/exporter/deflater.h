// zlib's deflate for many blocks of bytes, each a zlib stream of its own.
//
// Threads: one at a time. Lifetime: owns its memory; a result is valid until the next call.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "core/result.h"

namespace lm::exporter {

class Deflater {
  public:
    Deflater();
    ~Deflater();
    Deflater(const Deflater&) = delete;
    Deflater& operator=(const Deflater&) = delete;

    /// At most 1 GiB at a time. Error: ioError "cannot compress: REASON".
    Result<std::span<const std::uint8_t>> deflate(std::span<const std::uint8_t> bytes);

  private:
    struct Stream;

    std::unique_ptr<Stream> stream_;
    std::vector<std::uint8_t> packed_;
};

}  // namespace lm::exporter
