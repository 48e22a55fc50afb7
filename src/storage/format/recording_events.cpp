#include "storage/format/recording_events.h"

#include <algorithm>
#include <array>
#include <exception>
#include <limits>
#include <utility>

#include <nlohmann/json.hpp>

#include "core/file_lock.h"
#include "storage/read/input_file.h"

namespace lm::storage {
namespace {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;

constexpr std::size_t kChunk = 64 * 1024;
/// Longer than any line that is written.
constexpr std::size_t kLongestLine = 64 * 1024;
constexpr std::size_t kMostFaults = 20;
constexpr int kEventsVersion = 1;
constexpr const char* kBegunAgainKey = "begunAgain";

std::string lineOf(const OrderedJson& json) {
    return json.dump(-1, ' ', false, OrderedJson::error_handler_t::replace) + "\n";
}

OrderedJson startOf(const RecordingInfo& info) {
    return {{"event", "start"},
            {"timeNs", info.startHostNs},
            {"utcNs", info.startUtcNs},
            {"version", kEventsVersion}};
}

std::optional<std::int64_t> integerAt(const Json& json, const char* key) {
    const auto found = json.find(key);
    if (found == json.end() || !found->is_number_integer()) return std::nullopt;
    constexpr auto kMaximum = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if (found->is_number_unsigned() && found->get<std::uint64_t>() > kMaximum) return std::nullopt;
    return found->get<std::int64_t>();
}

std::optional<std::string> optionalTextAt(const Json& json, const char* key) {
    const auto found = json.find(key);
    if (found == json.end() || !found->is_string()) return std::nullopt;
    return found->get<std::string>();
}

constexpr const char* kEcuKey = "ecu";

std::string ecuOf(const Json& json) {
    return optionalTextAt(json, kEcuKey).value_or("");
}

/// Takes the lines of a file one after the other.
class EventReader {
  public:
    EventReader(const RecordingInfo& info, RecordingEvents& events) : info_(info), events_(events) {}

    void takeLine(std::string_view line) {
        ++number_;
        const Json json = parsed(line);
        const auto kind = optionalTextAt(json, "event");
        const auto time = integerAt(json, "timeNs");
        if (number_ == 1) return takeStart(json, kind);
        if (!kind || !time) return fault("is no event");
        if (*kind == "clock") return takeClock(json, *time);
        if (*kind == "outageBegin") return takeBegin(json, *time);
        if (*kind == "outageEnd") return takeEnd(json, *time);
        if (*kind == "ecuChanged") return takeChange(json, *time);
        if (*kind == "clockStep") return takeStep(json, *time);
        if (*kind == "ecu") return takeEcu(json, *time);
        if (*kind == "trigger") return takeTrigger(json, *time);
        if (*kind == "ecuClock") return takeEcuClock(json, *time);
        if (*kind == "marker") return takeMarker(json, *time);
        if (*kind == "parameter") return takeWrite(json, *time);
        if (*kind == "partBegin") return takeBorder(json, *time, events_.begin);
        if (*kind == "partEnd") return takeBorder(json, *time, events_.end);
        // A kind of a later program.
    }
    /// A first line that tells of which recording the file is.
    bool knowsRecording() const { return events_.file == RecordingEvents::File::read; }
    bool isFirst() const { return number_ == 0; }

    static Json parsed(std::string_view line) {
        if (line.size() > kLongestLine) return {};
        Json json = Json::parse(line, nullptr, false);
        return json.is_object() ? json : Json::object();
    }

  private:
    void takeStart(const Json& json, const std::optional<std::string>& kind) {
        const auto host = integerAt(json, "timeNs");
        const auto utc = integerAt(json, "utcNs");
        const auto version = integerAt(json, "version");
        if (kind != "start" || !host || !utc || !version) {
            return give(RecordingEvents::File::unreadable, "line 1 does not tell of which recording it is");
        }
        if (*version != kEventsVersion) {
            return give(
                RecordingEvents::File::unreadable,
                "version " + std::to_string(*version) + " instead of " + std::to_string(kEventsVersion));
        }
        if (*host != info_.startHostNs || *utc != info_.startUtcNs) {
            return give(RecordingEvents::File::ofAnotherRecording, "of another recording");
        }
        const auto begunAgain = json.find(kBegunAgainKey);
        events_.begunAgain = begunAgain != json.end() && *begunAgain == true;
        give(RecordingEvents::File::read,
             events_.begunAgain ? "begun again by a repair, which found it cut" : "");
        events_.clocks.push_back({*host, *utc});
    }
    void give(RecordingEvents::File file, std::string trouble) {
        events_.file = file;
        events_.trouble = std::move(trouble);
    }

    void takeClock(const Json& json, std::int64_t time) {
        const auto utc = integerAt(json, "utcNs");
        if (!utc) return fault("is no event");
        events_.clocks.push_back({time, *utc});
    }
    void takeStep(const Json& json, std::int64_t time) {
        const auto utc = integerAt(json, "utcNs");
        const auto by = integerAt(json, "byNs");
        if (!utc || !by) return fault("is no event");
        events_.steps.push_back({{time, *utc}, *by});
    }
    void takeTrigger(const Json& json, std::int64_t time) {
        const auto what = optionalTextAt(json, "what");
        auto text = optionalTextAt(json, "text");
        if ((what != "start" && what != "stop") || !text) return fault("is no event");
        events_.triggers.push_back({time, what == "start", std::move(*text)});
    }
    void takeEcu(const Json& json, std::int64_t time) {
        EcuNote note{time, optionalTextAt(json, "epk").value_or(""),
                     optionalTextAt(json, "trouble").value_or("")};
        for (const Json& told : json.value("checksums", Json::array())) {
            const auto segment = integerAt(told, "segment");
            const auto address = integerAt(told, "address");
            const auto size = integerAt(told, "size");
            const auto sums = optionalTextAt(told, "sums");
            if (!segment || !address || !size || !sums) return fault("is no event");
            EcuNote::Sum sum{static_cast<std::uint8_t>(*segment),
                             {},
                             static_cast<std::uint32_t>(*address),
                             static_cast<std::uint32_t>(*size),
                             *sums};
            if (const auto page = integerAt(told, "page")) sum.page = static_cast<std::uint8_t>(*page);
            note.sums.push_back(std::move(sum));
        }
        note.ecu = ecuOf(json);
        events_.ecus.push_back(std::move(note));
    }
    void takeEcuClock(const Json& json, std::int64_t time) {
        const auto offset = integerAt(json, "offsetNs");
        const auto drift = json.find("driftPpm");
        const auto residual = json.find("residualNs");
        const auto span = integerAt(json, "spanNs");
        const auto isNumber = [&](const auto& found) { return found != json.end() && found->is_number(); };
        if (!offset || !isNumber(drift) || !isNumber(residual) || !span) return fault("is no event");
        EcuClock clock{time, *offset, drift->get<double>(), residual->get<double>(), *span, ecuOf(json)};
        replaceClock(events_.ecuClocks, std::move(clock));
    }
    void takeBorder(const Json& json, std::int64_t time, std::optional<PartBorder>& into) {
        PartBorder border{time, {}, optionalTextAt(json, "next").value_or("")};
        const Json records = json.value("records", Json());
        if (!records.is_array() || records.size() != info_.groups.size()) return fault("is no event");
        for (const Json& number : records) {
            if (!number.is_number_unsigned()) return fault("is no event");
            border.records.push_back(number.get<std::uint64_t>());
        }
        into = std::move(border);
    }
    void takeBegin(const Json& json, std::int64_t time) {
        auto reason = optionalTextAt(json, "reason");
        if (!reason) return fault("is no event");
        const std::string ecu = ecuOf(json);
        if (!open_.emplace(ecu, events_.outages.size()).second)
            return fault("begins an outage within another one");
        events_.outages.push_back({time, std::nullopt, false, std::move(*reason), "", ecu});
    }
    void takeEnd(const Json& json, std::int64_t time) {
        auto outcome = optionalTextAt(json, "outcome");
        const auto recovered = json.find("recovered");
        if (!outcome || recovered == json.end() || !recovered->is_boolean()) return fault("is no event");
        const auto open = open_.find(ecuOf(json));
        if (open == open_.end()) return fault("ends an outage that did not begin");
        Outage& outage = events_.outages[open->second];
        open_.erase(open);
        if (time < outage.beginNs) fault("ends an outage before its begin");
        outage.endNs = std::max(time, outage.beginNs);
        outage.recovered = recovered->get<bool>();
        outage.outcome = std::move(*outcome);
    }

    void takeChange(const Json& json, std::int64_t time) {
        auto what = optionalTextAt(json, "what");
        auto text = optionalTextAt(json, "text");
        if (!what || !text) return fault("is no event");
        events_.ecuChanges.push_back({time, std::move(*what), std::move(*text), ecuOf(json)});
    }

    void takeMarker(const Json& json, std::int64_t time) {
        auto text = optionalTextAt(json, "text");
        if (!text) return fault("is no event");
        events_.markers.push_back({time, std::move(*text)});
    }
    void takeWrite(const Json& json, std::int64_t time) {
        auto name = optionalTextAt(json, "name");
        auto after = optionalTextAt(json, "new");
        if (!name || !after) return fault("is no event");
        events_.writes.push_back({time, std::move(*name), optionalTextAt(json, "old").value_or(""),
                                  std::move(*after), optionalTextAt(json, "by").value_or("")});
    }

    void fault(const char* text) {
        if (events_.faults.size() < kMostFaults) events_.faults.push_back({number_, text});
    }

    const RecordingInfo& info_;
    RecordingEvents& events_;
    std::uint64_t number_ = 0;
    std::map<std::string, std::size_t> open_;  ///< outages by ECU
};

/// Hands whole lines to the reader; returns what stands behind the last one.
Result<std::string> readLines(const InputFile& file, EventReader& reader, RecordingEvents& events) {
    std::array<std::uint8_t, kChunk> chunk{};
    std::string line;
    for (std::uint64_t at = 0; at < file.size(); at += chunk.size()) {
        const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(chunk.size(), file.size() - at));
        if (auto read = file.readAt(at, chunk.data(), size); !read) return read.error();
        for (std::size_t i = 0; i < size; ++i) {
            if (chunk[i] != '\n') {
                // What is longer is no line, however much longer.
                if (line.size() <= kLongestLine) line += static_cast<char>(chunk[i]);
                continue;
            }
            reader.takeLine(line);
            events.wholeBytes = at + i + 1;
            line.clear();
            if (!reader.knowsRecording()) return line;
        }
    }
    return line;
}

}  // namespace

bool overlaps(const Outage& outage, const TimeRange& times) {
    return outage.beginNs < times.endNs && (!outage.endNs || *outage.endNs > times.fromNs);
}

std::string startLine(const RecordingInfo& info) {
    return lineOf(startOf(info));
}

std::string startAgainLine(const RecordingInfo& info) {
    OrderedJson start = startOf(info);
    start[kBegunAgainKey] = true;
    return lineOf(start);
}

std::string outageBeginLine(std::int64_t timeNs, const std::string& reason) {
    return lineOf({{"event", "outageBegin"}, {"timeNs", timeNs}, {"reason", reason}});
}

std::string outageEndLine(std::int64_t timeNs, bool recovered, const std::string& outcome) {
    return lineOf(
        {{"event", "outageEnd"}, {"timeNs", timeNs}, {"recovered", recovered}, {"outcome", outcome}});
}

std::string clockLine(const ClockPair& clocks) {
    return lineOf({{"event", "clock"}, {"timeNs", clocks.hostNs}, {"utcNs", clocks.utcNs}});
}

std::string ecuChangedLine(std::int64_t timeNs, std::string_view what, const std::string& text) {
    return lineOf({{"event", "ecuChanged"}, {"timeNs", timeNs}, {"what", what}, {"text", text}});
}

std::string clockStepLine(const ClockStep& step) {
    return lineOf({{"event", "clockStep"},
                   {"timeNs", step.after.hostNs},
                   {"utcNs", step.after.utcNs},
                   {"byNs", step.byNs}});
}

std::string ecuLine(const EcuNote& note) {
    OrderedJson json = {{"event", "ecu"}, {"timeNs", note.timeNs}};
    if (!note.epk.empty()) json["epk"] = note.epk;
    if (!note.trouble.empty()) json["trouble"] = note.trouble;
    OrderedJson sums = OrderedJson::array();
    for (const EcuNote::Sum& sum : note.sums) {
        OrderedJson one = {{"segment", sum.segment}};
        if (sum.page) one["page"] = *sum.page;
        one["address"] = sum.address;
        one["size"] = sum.size;
        one["sums"] = sum.sums;
        sums.push_back(std::move(one));
    }
    if (!sums.empty()) json["checksums"] = std::move(sums);
    return lineOf(json);
}

void replaceClock(std::vector<EcuClock>& clocks, EcuClock clock) {
    const auto at = std::find_if(clocks.begin(), clocks.end(),
                                 [&](const EcuClock& other) { return other.ecu >= clock.ecu; });
    if (at != clocks.end() && at->ecu == clock.ecu) {
        *at = std::move(clock);
    } else {
        clocks.insert(at, std::move(clock));
    }
}

std::string triggerLine(const Trigger& trigger) {
    return lineOf({{"event", "trigger"},
                   {"timeNs", trigger.timeNs},
                   {"what", trigger.isStart ? "start" : "stop"},
                   {"text", trigger.text}});
}

std::string ecuClockLine(const EcuClock& clock) {
    return lineOf({{"event", "ecuClock"},
                   {"timeNs", clock.timeNs},
                   {"offsetNs", clock.offsetNs},
                   {"driftPpm", clock.driftPpm},
                   {"residualNs", clock.residualNs},
                   {"spanNs", clock.spanNs}});
}

std::string lineOfEcu(const std::string& line, const std::string& ecu) {
    if (ecu.empty() || !line.starts_with('{')) return line;
    const OrderedJson name = ecu;
    return std::string("{\"") + kEcuKey +
           "\":" + name.dump(-1, ' ', false, OrderedJson::error_handler_t::replace) + "," + line.substr(1);
}

std::string markerLine(const Marker& marker) {
    return lineOf({{"event", "marker"}, {"timeNs", marker.timeNs}, {"text", marker.text}});
}

std::string parameterLine(const ParameterWrite& write) {
    return lineOf({{"event", "parameter"},
                   {"timeNs", write.timeNs},
                   {"name", write.name},
                   {"old", write.before},
                   {"new", write.after},
                   {"by", write.by}});
}

std::string partBeginLine(const PartBorder& border) {
    return lineOf({{"event", "partBegin"}, {"timeNs", border.timeNs}, {"records", border.records}});
}

std::string partEndLine(const PartBorder& border) {
    return lineOf({{"event", "partEnd"},
                   {"timeNs", border.timeNs},
                   {"records", border.records},
                   {"next", border.next}});
}

std::string partRemovedLine(std::int64_t timeNs, const std::string& name) {
    return lineOf({{"event", "partRemoved"}, {"timeNs", timeNs}, {"name", name}});
}

void StandingEvents::take(std::string_view line) {
    const Json json = EventReader::parsed(line);
    const auto kind = optionalTextAt(json, "event");
    const auto ofEcu = [&]() -> OfEcu& { return ecus_[ecuOf(json)]; };
    if (kind == "outageBegin") ofEcu().outage = optionalTextAt(json, "reason").value_or("");
    if (kind == "outageEnd") ofEcu().outage.reset();
    if (kind == "ecu") ofEcu().ran = line;
}

std::string StandingEvents::endLines(std::int64_t timeNs) const {
    std::string lines;
    for (const auto& [ecu, standing] : ecus_) {
        if (standing.outage)
            lines += lineOfEcu(outageEndLine(timeNs, false, std::string(kOutageGoesOn)), ecu);
    }
    return lines;
}

std::string StandingEvents::beginLines(std::int64_t timeNs) const {
    std::string lines;
    for (const auto& [ecu, standing] : ecus_) {
        lines += standing.ran;
        if (standing.outage) lines += lineOfEcu(outageBeginLine(timeNs, *standing.outage), ecu);
    }
    return lines;
}

RecordingEvents readEvents(const std::filesystem::path& directory, const RecordingInfo& info) {
    RecordingEvents events;
    auto file = InputFile::open(directory / kEventFileName);
    if (!file) {
        if (file.error().code == ErrorCode::notFound) return events;
        events.file = RecordingEvents::File::unreadable;
        events.trouble = file.error().text();
        return events;
    }
    events.beingWritten = isLockedByAnother(file.value().descriptor());
    EventReader reader(info, events);
    auto rest = readLines(file.value(), reader, events);
    if (!rest) {
        events.file = RecordingEvents::File::unreadable;
        events.trouble = rest.error().text();
        return events;
    }
    if (reader.isFirst()) {
        events.file = RecordingEvents::File::beginLost;
        events.trouble = "cut in its first line, holds no event";
    }
    if (!events.trouble.empty()) {
        events.trouble = file.value().path().string() + ": " + events.trouble;
    }
    if (!reader.knowsRecording() && !reader.isFirst()) return events;
    events.tornBytes = file.value().size() - events.wholeBytes;
    const Json last = EventReader::parsed(rest.value());
    events.lastLineIsWhole = !reader.isFirst() && optionalTextAt(last, "event") && integerAt(last, "timeNs");
    if (events.lastLineIsWhole) reader.takeLine(rest.value());
    return events;
}

}  // namespace lm::storage
