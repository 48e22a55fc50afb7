#include "broker/channel_broker.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace lm::broker {
namespace {

bool matches(const Filter& filter, const hal::CanFrame& frame) {
    if (((frame.id ^ filter.id) & filter.mask) != 0) return false;
    if (filter.format == FrameFormat::any) return true;
    return (filter.format == FrameFormat::extended) == frame.has(hal::CanFrame::extended);
}

}  // namespace

/// Holds the registry, and notes who does, while handlers are called.
class ChannelBroker::Dispatch {
  public:
    explicit Dispatch(ChannelBroker& broker) : broker_(broker), lock_(broker.registryMutex_) {
        broker_.dispatching_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    }
    ~Dispatch() { broker_.dispatching_.store(std::thread::id(), std::memory_order_relaxed); }
    Dispatch(const Dispatch&) = delete;
    Dispatch& operator=(const Dispatch&) = delete;

  private:
    ChannelBroker& broker_;
    std::lock_guard<std::mutex> lock_;
};

ChannelBroker::ChannelBroker(hal::ICanChannel& channel) : channel_(channel) {
    channel_.setSink(this);
}

ChannelBroker::~ChannelBroker() {
    channel_.setSink(nullptr);
}

void ChannelBroker::onFrames(const hal::CanFrame* frames, std::size_t count) {
    const Dispatch dispatch(*this);
    for (const hal::CanFrame* frame = frames; frame != frames + count; ++frame) {
        for (const Registration& registration : registrations_) {
            for (const Filter& filter : registration.filters) {
                if (!matches(filter, *frame)) continue;
                registration.handler->onFrame(*frame);
                break;
            }
        }
    }
}

void ChannelBroker::onChannelEvent(const hal::CanChannelEvent& event) {
    const Dispatch dispatch(*this);
    for (const Registration& registration : registrations_) {
        registration.handler->onChannelEvent(event);
    }
}

std::uint32_t ChannelBroker::registerHandler(std::vector<Filter> filters, IFrameHandler& handler) {
    requireOutsideDispatch("registerHandler");
    const std::lock_guard lock(registryMutex_);
    registrations_.push_back({.id = nextId_, .filters = std::move(filters), .handler = &handler});
    return nextId_++;
}

void ChannelBroker::setFilters(std::uint32_t id, std::vector<Filter> filters) {
    requireOutsideDispatch("setFilters");
    const std::lock_guard lock(registryMutex_);
    const auto found = std::find_if(registrations_.begin(), registrations_.end(),
                                    [id](const Registration& registration) { return registration.id == id; });
    if (found != registrations_.end()) found->filters = std::move(filters);
}

void ChannelBroker::unregisterHandler(std::uint32_t id) {
    requireOutsideDispatch("unregisterHandler");
    const std::lock_guard lock(registryMutex_);
    std::erase_if(registrations_, [id](const Registration& registration) { return registration.id == id; });
}

Result<void> ChannelBroker::send(const hal::CanFrame& frame) {
    const std::lock_guard lock(sendMutex_);
    return channel_.send(frame);
}

/// The registry would wait for itself for ever; a line on standard error is found sooner.
void ChannelBroker::requireOutsideDispatch(const char* operation) const {
    if (dispatching_.load(std::memory_order_relaxed) != std::this_thread::get_id()) return;
    std::fprintf(stderr, "lm: %s called from inside a frame handler\n", operation);
    std::abort();
}

}  // namespace lm::broker
