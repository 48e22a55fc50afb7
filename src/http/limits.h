// What a server grants its clients, the hostile ones included.
//
// Threads: plain records. Lifetime: own everything.
#pragma once

#include <chrono>
#include <cstddef>

namespace lm::http {

/// Of each listening socket for itself, so that who fills one of them locks no one out of another.
struct Limits {
    std::size_t headBytes = 16U << 10U;
    std::size_t bodyBytes = 4U << 20U;
    std::size_t connections = 256;
    std::size_t connectionsPerPeer = 64;  ///< of an address; of a process on a Unix socket
    std::size_t streams = 32;
    std::size_t streamBytes = 4U << 20U;         ///< not yet taken by the client of one stream
    std::chrono::milliseconds headTime{5000};    ///< from the connection to the whole head
    std::chrono::milliseconds bodyTime{20000};   ///< from the head to the whole body
    std::chrono::milliseconds idleTime{30000};   ///< from an answer to the whole head of the next request
    std::chrono::milliseconds writeTime{10000};  ///< for 64 KiB of an answer
    std::chrono::milliseconds lingerTime{1000};  ///< for a client to read why it was refused
    std::chrono::milliseconds heartbeat{10000};  ///< of a stream without events, which finds who has vanished
    std::chrono::milliseconds frameHeartbeat{1000};  ///< of one of frames, whose client watches for it
    std::size_t workers = 4;                         ///< threads of handlers, of the whole server
};

}  // namespace lm::http
