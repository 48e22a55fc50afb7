#include "http/stored_body.h"

#include <cstdint>
#include <zlib.h>

#include <fmt/format.h>

namespace lm::http {
namespace {

/// FNV-1a: tells versions of one file apart, and guards nothing.
std::uint64_t hashOf(std::string_view text) {
    std::uint64_t hash = 0xcbf29ce484222325;
    for (const char c : text) {
        hash ^= static_cast<unsigned char>(c);
        hash *= 0x100000001b3;
    }
    return hash;
}

}  // namespace

Result<std::string> gzipped(std::string_view text) {
    z_stream stream{};
    constexpr int kGzip = 15 + 16;
    constexpr int kMemory = 8;
    if (::deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzip, kMemory, Z_DEFAULT_STRATEGY) !=
        Z_OK) {
        return Error{ErrorCode::unsupported, "cannot compress an answer"};
    }
    std::string out(::deflateBound(&stream, static_cast<uLong>(text.size())), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    const int done = ::deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    ::deflateEnd(&stream);
    if (done != Z_STREAM_END) return Error{ErrorCode::unsupported, "cannot compress an answer"};
    return out;
}

StoredBody::StoredBody(std::string contentType, std::string bytes,
                       std::vector<std::pair<std::string, std::string>> headers)
    : contentType_(std::move(contentType)),
      plain_(std::move(bytes)),
      tag_(fmt::format("\"{:016x}\"", hashOf(plain_))),
      headers_(std::move(headers)) {
    Result<std::string> compressed = gzipped(plain_);
    if (compressed && compressed.value().size() < plain_.size()) compressed_ = std::move(compressed).value();
}

Response StoredBody::responseTo(const Request& request) const {
    Response response;
    response.contentType = contentType_;
    response.cacheControl = "no-cache";
    response.headers = headers_;
    response.headers.emplace_back("ETag", tag_);
    response.headers.emplace_back("Vary", "Accept-Encoding");
    if (request.ifNoneMatch.find(tag_) != std::string::npos) {
        response.status = 304;
    } else if (request.acceptsGzip && !compressed_.empty()) {
        response.headers.emplace_back("Content-Encoding", "gzip");
        response.body = compressed_;
    } else {
        response.body = plain_;
    }
    return response;
}

}  // namespace lm::http
