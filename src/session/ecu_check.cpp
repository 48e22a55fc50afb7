#include "session/ecu_check.h"

#include <algorithm>
#include <optional>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "core/text.h"

namespace lm::session {
namespace {

using State = CheckLine::State;

std::string orderName(ByteOrder order) {
    return order == ByteOrder::bigEndian ? "Motorola" : "Intel";
}

std::string cycleText(std::int64_t ns) {
    return ns == 0 ? "not cyclic" : formatShortest(static_cast<double>(ns) / 1e6) + " ms";
}

std::string bytesText(std::uint32_t address, std::uint8_t extension, std::uint32_t size) {
    const std::string place = extension == 0 ? "" : fmt::format(" extension {}", extension);
    return fmt::format("0x{:08X}{}, {} bytes", address, place, size);
}

/// A connection that is lost ends the check; a refusal is something to tell.
bool isLost(const Error& error) {
    return error.code == ErrorCode::timeout || error.isStop() || error.code == ErrorCode::notOpen ||
           error.code == ErrorCode::closed;
}

class EcuCheck {
  public:
    EcuCheck(Session& session, const ChecksumFile* against, const params::MemoryFile* image)
        : session_(session), description_(session.description()), against_(against), image_(image) {}

    Result<CheckResult> run() {
        addIdentity();
        addConnection();
        if (auto told = addNames(); !told) return told.error();
        addDaq();
        if (auto done = addSegments(); !done) return done.error();
        if (image_ != nullptr && result_.sums.segments.empty())
            unknown("image", "the ECU tells no checksums of segments", "bytes to compare with");
        return std::move(result_);
    }

  private:
    void compare(std::string what, std::string ecu, std::string expected) {
        const State state = expected.empty() ? State::told : ecu == expected ? State::same : State::different;
        result_.lines.push_back({state, std::move(what), std::move(ecu), std::move(expected)});
    }
    void unknown(std::string what, std::string why, std::string expected = {}) {
        result_.lines.push_back({State::unknown, std::move(what), std::move(why), std::move(expected)});
    }

    void addIdentity() {
        const Identity& identity = session_.identity();
        result_.sums.ecuEpk = identity.ecu;
        switch (identity.state) {
            case Identity::State::unknown:
                return unknown("EPK", "not asked for", description_.parameters.epk);
            case Identity::State::unreadable:
                return unknown("EPK", identity.error ? identity.error->text() : "", identity.a2l);
            default:
                return compare("EPK", identity.ecu, identity.a2l);
        }
    }

    void addConnection() {
        const xcp::ConnectInfo info = session_.connectInfo();
        const auto& layer = description_.xcp.protocolLayer;
        const auto order = layer && layer->byteOrder ? layer->byteOrder : description_.byteOrder;
        const auto number = [](unsigned value) { return std::to_string(value); };
        compare("byte order", orderName(info.byteOrder()), order ? orderName(*order) : "");
        compare("granularity", number(info.granularity()),
                layer && layer->addressGranularity ? number(*layer->addressGranularity) : "");
        compare("MAX_CTO", number(info.maxCto), layer ? number(layer->maxCto) : "");
        compare("MAX_DTO", number(info.maxDto), layer ? number(layer->maxDto) : "");
    }

    /// Only the EPK is compared: files are renamed.
    Result<void> addNames() {
        static constexpr std::pair<xcp::IdType, const char*> kTypes[] = {
            {xcp::IdType::text, "GET_ID text"},    {xcp::IdType::a2lName, "GET_ID A2L"},
            {xcp::IdType::a2lFile, "GET_ID file"}, {xcp::IdType::url, "GET_ID URL"},
            {xcp::IdType::epk, "GET_ID EPK"},      {xcp::IdType::ecu, "GET_ID ECU"},
        };
        for (const auto& [type, name] : kTypes) {
            const xcp::IdType wanted = type;
            const auto text =
                session_.ask([&](xcp::Master& master) { return master.pages().identification(wanted); });
            if (!text && isLost(text.error())) return text.error();
            if (!text && text.error().detail == xcp::kErrCmdUnknown) return {};
            if (!text || text.value().empty()) continue;
            const bool isEpk = wanted == xcp::IdType::epk;
            compare(name, isEpk ? std::string(withoutFilling(text.value())) : text.value(),
                    isEpk ? std::string(withoutFilling(description_.parameters.epk)) : "");
        }
        return {};
    }

    void addDaq() {
        const auto& daq = session_.daqCapabilities();
        const auto& described = description_.xcp.daq;
        const DaqOrigins& origins = session_.daqOrigins();
        if (!daq) return unknown("DAQ", "not told", described ? "described" : "");
        if (origins.configuration == Origin::ecu) {
            compare("DAQ lists", daq->dynamicConfiguration ? "dynamic" : "static",
                    !described           ? ""
                    : described->dynamic ? "dynamic"
                                         : "static");
            compare(
                "DAQ identification", std::to_string(static_cast<unsigned>(daq->identification)),
                described && described->knowsIdentification ? std::to_string(described->identification) : "");
        }
        if (origins.resolution == Origin::ecu) {
            const auto stamp = [](unsigned size, std::int64_t ns) {
                return size == 0 ? std::string("none") : fmt::format("{} byte x {} ns", size, ns);
            };
            std::string expected;
            if (described)
                expected = described->timestamp
                               ? stamp(described->timestamp->size, described->timestamp->tickNs())
                               : stamp(0, 0);
            compare("DAQ timestamp", stamp(daq->timestampSize, daq->tickNs), expected);
            compare("DAQ entry size", std::to_string(daq->maxEntrySize),
                    described && described->maxEntrySize != 0 ? std::to_string(described->maxEntrySize) : "");
        }
        if (origins.events == Origin::ecu) addEvents(*daq);
    }

    void addEvents(const xcp::DaqCapabilities& daq) {
        std::vector<a2l::XcpEvent> none;
        const auto& described = description_.xcp.daq ? description_.xcp.daq->events : none;
        const auto text = [](const std::string& name, std::int64_t ns) {
            return std::string(name.c_str()) + ", " + cycleText(ns);  // perhaps with NUL bytes behind it
        };
        for (const xcp::EventChannel& event : daq.events) {
            const auto known = std::find_if(described.begin(), described.end(),
                                            [&](const auto& other) { return other.channel == event.number; });
            std::string expected = described.empty() ? "" : "no such event";
            if (known != described.end()) expected = text(known->name, known->cycleNs());
            compare(fmt::format("event {}", event.number), text(event.name, event.cycleNs), expected);
        }
        for (const a2l::XcpEvent& event : described) {
            if (daq.findEvent(event.channel) != nullptr) continue;
            compare(fmt::format("event {}", event.channel), "no such event",
                    text(event.name, event.cycleNs()));
        }
    }

    Result<void> addSegments() {
        PageControl& control = session_.pages();
        const auto overview = control.look();
        if (!overview && isLost(overview.error())) return overview.error();
        if (!overview) {
            if (overview.error().code != ErrorCode::unsupported) unknown("segments", overview.error().text());
            return {};
        }
        const auto& all = description_.parameters.segments;
        const auto described =
            std::count_if(all.begin(), all.end(), [](const auto& one) { return one.xcp.has_value(); });
        compare("segments", std::to_string(overview.value().segments.size()),
                described == 0 ? "" : std::to_string(described));
        for (const SegmentState& segment : overview.value().segments) {
            addSegment(segment);
            if (auto summed = addSums(control, segment); !summed) return summed;
        }
        return {};
    }

    void addSegment(const SegmentState& segment) {
        const std::string name = fmt::format("segment {}", segment.number);
        const a2l::MemorySegment* described = description_.parameters.segment(segment.number);
        if (segment.toldByEcu) {
            std::string expected;
            if (described != nullptr)
                expected = bytesText(described->address, described->xcp->addressExtension, described->size);
            compare(name, bytesText(segment.address.address, segment.address.extension, segment.size),
                    expected);
            compare(name + " pages", std::to_string(segment.pages.size()),
                    described == nullptr ? "" : std::to_string(described->xcp->pageCount));
        }
        if (segment.ecuPage) compare(name + " page of the ECU", std::to_string(*segment.ecuPage), "");
        if (segment.xcpPage) compare(name + " page of XCP", std::to_string(*segment.xcpPage), "");
    }

    Result<void> addSums(PageControl& control, const SegmentState& segment) {
        const std::string name = fmt::format("segment {} checksum", segment.number);
        const auto sums = control.sums(segment);
        if (!sums && isLost(sums.error())) return sums.error();
        if (!sums) {
            unknown(name, sums.error().text());
            return {};
        }
        const SavedSums now{
            segment.number, segment.xcpPage, segment.address.address, segment.address.extension,
            segment.size,   sums.value()};
        result_.sums.segments.push_back(now);
        compareType(segment, sums.value());
        if (image_ != nullptr) compareImage(now);
        const SavedSums* before = against_ == nullptr ? nullptr : against_->find(segment.number);
        if (before == nullptr) {
            compare(name, sumText(sums.value()), against_ == nullptr ? "" : "not in the file");
        } else if (before->page != now.page) {
            unknownPage(name, *before, now);
        } else {
            compare(name, sumText(now.sums), sumText(before->sums));
            // Blocks beyond those shown count, too.
            if (before->sums != now.sums || before->address != now.address || before->size != now.size)
                result_.lines.back().state = State::different;
        }
        return {};
    }

    /// Images have the addresses of the A2L.
    void compareImage(const SavedSums& now) {
        const std::string name = fmt::format("segment {} image", now.segment);
        const a2l::MemorySegment* described = description_.parameters.segment(now.segment);
        std::uint32_t at = described != nullptr ? described->address : now.address;
        SegmentSums held{now.sums.computedHere, now.sums.type, now.sums.sizes};
        for (const std::uint32_t size : now.sums.sizes) {
            const auto bytes = image_->at(at, size);
            if (bytes.empty()) {
                return unknown(name, sumText(now.sums),
                               fmt::format("no bytes at 0x{:08X}", image_->firstMissing(at, size)));
            }
            const auto sum = xcp::checksum(held.type, bytes, session_.connectInfo().byteOrder());
            if (!sum) return unknown(name, sumText(now.sums), "a checksum that cannot be computed here");
            held.sums.push_back(*sum);
            at += size;
        }
        compare(name, sumText(now.sums), sumText(held));
        if (held.sums != now.sums.sums) result_.lines.back().state = State::different;
    }

    void unknownPage(const std::string& name, const SavedSums& before, const SavedSums& now) {
        const auto text = [](const std::optional<std::uint8_t>& page) {
            return page ? fmt::format("page {}", *page) : std::string("an unknown page");
        };
        compare(name, "XCP is on " + text(now.page), "of " + text(before.page));
    }

    void compareType(const SegmentState& segment, const SegmentSums& sums) {
        const a2l::MemorySegment* described = description_.parameters.segment(segment.number);
        if (sums.computedHere || described == nullptr || !described->xcp->checksum) return;
        compare(fmt::format("segment {} checksum type", segment.number),
                std::string(xcp::checksumTypeName(sums.type)),
                std::string(a2l::checksumName(described->xcp->checksum->type)));
    }

    Session& session_;
    const a2l::Description& description_;
    const ChecksumFile* against_;
    const params::MemoryFile* image_;
    CheckResult result_;
};

}  // namespace

std::string sumText(const SegmentSums& sums) {
    const unsigned digits = 2U * xcp::checksumWidth(sums.type);
    std::vector<std::string> shown;
    for (const std::uint32_t sum : sums.sums)
        shown.push_back(fmt::format("0x{:0{}X}", sum, digits));
    constexpr std::size_t kMost = 4;
    const std::size_t more = shown.size() - std::min(shown.size(), kMost);
    shown.resize(shown.size() - more);
    std::string name(xcp::checksumTypeName(sums.type));
    if (name.empty()) name = fmt::format("type 0x{:02X}", static_cast<unsigned>(sums.type));
    return fmt::format("{} {}{}{}", name, fmt::join(shown, " "),
                       more == 0 ? "" : fmt::format(" and {} more blocks", more),
                       sums.computedHere ? ", computed here" : "");
}

std::string_view checkStateName(CheckLine::State state) {
    static constexpr std::array<std::string_view, 4> kNames = {"same", "different", "told", "unknown"};
    return kNames.at(static_cast<std::size_t>(state));
}

bool CheckResult::hasDifferences() const {
    return std::any_of(lines.begin(), lines.end(),
                       [](const CheckLine& line) { return line.state == State::different; });
}

Result<CheckResult> checkEcu(Session& session, const ChecksumFile* against, const params::MemoryFile* image) {
    return EcuCheck(session, against, image).run();
}

}  // namespace lm::session
