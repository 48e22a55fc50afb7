// A body that is sent many times: plain or compressed, or not at all to who has it already.
//
// Threads: immutable once made. Lifetime: owns everything; responses are copies.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/result.h"
#include "http/message.h"

namespace lm::http {

/// As of `Content-Encoding: gzip`. Error: unsupported, that zlib would not.
Result<std::string> gzipped(std::string_view text);

class StoredBody {
  public:
    /// What cannot be compressed is sent as it is.
    StoredBody(std::string contentType, std::string bytes,
               std::vector<std::pair<std::string, std::string>> headers = {});

    /// 304 for who asks with its tag. Browsers may keep it, and ask again before each use.
    Response responseTo(const Request& request) const;

  private:
    std::string contentType_;
    std::string plain_;
    std::string compressed_;  ///< empty: it would not be shorter
    std::string tag_;
    std::vector<std::pair<std::string, std::string>> headers_;
};

}  // namespace lm::http
