#include "session/serial_medium.h"

#include <spdlog/fmt/fmt.h>

#include "a2l/xcp_interface.h"
#include "session/session_config.h"
#include "storage/format/recording_source.h"
#include "xcp/serial_transport.h"

namespace lm::session {
namespace {

constexpr std::uint32_t kDefaultBaudrate = 115200;

class SerialMedium final : public IMedium {
  public:
    SerialMedium(const xcp::SerialTransportConfig& config, const StopToken& stop)
        : transport_(config, stop),
          texts_{
              "serial:" + config.port,
              fmt::format("XCP on serial, {}, {} baud", config.port, config.baudrate),
              fmt::format("{} {}", storage::kSerialSource, config.port),
              fmt::format("no one answers on {} at {} baud: the ECU is off or still starting "
                          "(--reset-delay), port or baud rate is another one, or another master is connected",
                          config.port, config.baudrate),
              "serial:" + config.port},
          baudrate_(config.baudrate) {}

    const MediumTexts& texts() const override { return texts_; }
    xcp::ITransport& transport() override { return transport_; }

    Result<double> claimLoad(const LoadInput& input, double limit) override {
        const double load = estimateSerialLoad(input, baudrate_).fraction;
        if (load <= limit) return load;
        return Error{
            ErrorCode::invalidArgument,
            fmt::format("estimated load of the serial line {:.0f} % at {} baud exceeds the limit of {:.0f} % "
                        "(fewer signals, slower events or a higher baud rate)",
                        load * 100, baudrate_, limit * 100)};
    }

    std::vector<MediumCounter> counters() const override {
        return {{"serial invalid frames", transport_.statistics().invalidFrames}};
    }

    bool lost() const override { return transport_.lost(); }

    bool hasText() const override { return true; }
    void setTextSink(xcp::ITextSink* sink) override { transport_.setTextSink(sink); }
    Result<void> sendText(std::string_view line) override { return transport_.sendText(line); }

  private:
    xcp::SerialTransport transport_;
    const MediumTexts texts_;
    const std::uint32_t baudrate_;
};

}  // namespace

Result<std::unique_ptr<IMedium>> makeSerialMedium(const SessionConfig& config,
                                                  const a2l::XcpInterface& ifData, ChannelPool& /*pool*/,
                                                  const StopToken& stop) {
    const SessionConfig::Serial& serial = config.serial;
    if (serial.port.empty()) return std::unique_ptr<IMedium>();
    const std::uint32_t described =
        ifData.serial ? ifData.serial->baudrate.value_or(kDefaultBaudrate) : kDefaultBaudrate;
    return std::unique_ptr<IMedium>(std::make_unique<SerialMedium>(
        xcp::SerialTransportConfig{.port = serial.port,
                                   .baudrate = serial.baudrate.value_or(described),
                                   .resetDelay = serial.resetDelay},
        stop));
}

}  // namespace lm::session
