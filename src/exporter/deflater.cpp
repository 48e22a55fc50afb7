#include "exporter/deflater.h"

#include <string>
#include <zlib.h>

namespace lm::exporter {
namespace {

/// Measured on transposed records: higher levels take far longer for some percent.
constexpr int kLevel = 3;

Error failed(const z_stream& stream, int code) {
    const char* reason = stream.msg != nullptr ? stream.msg : ::zError(code);
    return {ErrorCode::ioError, std::string("cannot compress: ") + reason};
}

}  // namespace

struct Deflater::Stream {
    z_stream z{};
    int started = Z_STREAM_ERROR;

    Stream() { started = ::deflateInit(&z, kLevel); }
    ~Stream() {
        // What it says of a stream that was not read to its end means nothing here.
        if (started == Z_OK) ::deflateEnd(&z);
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
};

Deflater::Deflater() : stream_(std::make_unique<Stream>()) {}

Deflater::~Deflater() = default;

Result<std::span<const std::uint8_t>> Deflater::deflate(std::span<const std::uint8_t> bytes) {
    z_stream& z = stream_->z;
    if (stream_->started != Z_OK) return failed(z, stream_->started);
    if (const int code = ::deflateReset(&z); code != Z_OK) return failed(z, code);
    packed_.resize(::deflateBound(&z, bytes.size()));
    z.next_in = const_cast<Bytef*>(bytes.data());  // zlib only reads it
    z.avail_in = static_cast<uInt>(bytes.size());
    z.next_out = packed_.data();
    z.avail_out = static_cast<uInt>(packed_.size());
    if (const int code = ::deflate(&z, Z_FINISH); code != Z_STREAM_END) return failed(z, code);
    return std::span<const std::uint8_t>(packed_.data(), z.total_out);
}

}  // namespace lm::exporter
