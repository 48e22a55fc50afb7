// What receives the plain text that an ECU prints on the serial line between its XCP frames.
//
// Threads: all calls come from the transport's receive thread. Lifetime: the texts are valid during the call
// only.
#pragma once

#include <string_view>

namespace lm::xcp {

class ITextSink {
  public:
    virtual ~ITextSink() = default;

    /// One line of the ECU without its line end, or the part of a line after which the ECU fell silent. Safe
    /// to print on a terminal: valid UTF-8, TAB the only control character; every other byte stands as \xNN.
    virtual void onText(std::string_view line) = 0;

    /// Something about the line itself ("connection lost: ...").
    virtual void onNotice(std::string_view text) = 0;
};

}  // namespace lm::xcp
