#include "session/session_config.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <set>
#include <stdexcept>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "core/durable_file.h"
#include "core/log.h"
#include "core/stoppable_input.h"
#include "core/text.h"
#include "core/trusted_file.h"

namespace lm::session {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr std::array<std::string_view, 3> kPolicyNames = {"abort", "retry", "retry_forever"};

// A whole number written with a point or an exponent (5e5) is a whole number all the same.
std::optional<std::uint64_t> unsignedNumber(const json& value) {
    if (value.is_number_unsigned()) return value.get<std::uint64_t>();
    if (!value.is_number_float()) return std::nullopt;
    constexpr double kExactLimit = 9007199254740992.0;  // 2^53
    const double number = value.get<double>();
    if (number < 0 || number > kExactLimit || number != std::floor(number)) return std::nullopt;
    return static_cast<std::uint64_t>(number);
}

// One object of the document. Each read leaves its target alone when the key is missing; the first failure
// of the document is kept and ends all further reading.
class Section {
  public:
    Section(const json& object, std::string path, std::optional<Error>& failure)
        : object_(object), path_(std::move(path)), failure_(failure) {}

    void read(const char* key, std::string& target) {
        if (const json* value = find(key)) {
            if (value->is_string()) {
                target = value->get<std::string>();
            } else {
                failType(key, "text", *value);
            }
        }
    }

    void read(const char* key, std::optional<bool>& target) {
        bool value = false;
        if (find(key) == nullptr) return;
        read(key, value);
        target = value;
    }

    void read(const char* key, bool& target) {
        if (const json* value = find(key)) {
            if (value->is_boolean()) {
                target = value->get<bool>();
            } else {
                failType(key, "true or false", *value);
            }
        }
    }

    template <std::unsigned_integral T>
    void read(const char* key, T& target) {
        const json* value = find(key);
        if (value == nullptr) return;
        if (const auto number = wholeNumber(key, *value, 0, std::numeric_limits<T>::max())) {
            target = static_cast<T>(*number);
        }
    }

    template <std::unsigned_integral T>
    void read(const char* key, std::optional<T>& target) {
        T number = 0;
        if (object_.contains(key)) {
            read(key, number);
            target = number;
        } else {
            find(key);
        }
    }

    void readFraction(const char* key, double& target) {
        const json* value = find(key);
        if (value == nullptr) return;
        if (!value->is_number()) return failType(key, "a number", *value);
        const auto number = value->get<double>();
        if (number < 0) return fail(key, value->dump() + " is negative");
        target = number;
    }

    void readMilliseconds(const char* key, std::uint64_t minimum, auto& target) {
        const json* value = find(key);
        if (value == nullptr) return;
        // 49 days: no duration of a session comes near, and sums of time points stay far from overflow.
        if (const auto number = wholeNumber(key, *value, minimum, UINT32_MAX)) {
            target = std::chrono::milliseconds(*number);
        }
    }

    void readCanId(const char* key, std::optional<std::uint32_t>& target) {
        const json* value = find(key);
        if (value == nullptr) return;
        if (!value->is_string()) {
            if (!value->is_number()) return failType(key, "a number or text", *value);
            if (const auto number = wholeNumber(key, *value, 0, UINT32_MAX)) {
                target = static_cast<std::uint32_t>(*number);
            }
            return;
        }
        auto number = parseUnsigned(value->get<std::string>(), NumberBase::automatic, UINT32_MAX);
        if (!number) return fail(key, number.error().message);
        target = static_cast<std::uint32_t>(number.value());
    }

    /// An object whose keys are numbers of DAQ lists.
    void readIdsByList(CanIdByList& target) {
        for (const auto& [key, value] : object_.items()) {
            std::optional<std::uint32_t> id;
            readCanId(key.c_str(), id);
            const auto list = parseUnsigned(key, NumberBase::decimal, UINT16_MAX);
            if (failure_) return;
            if (!list) return fail(key.c_str(), "the key is not the number of a DAQ list");
            target[static_cast<std::uint16_t>(list.value())] = *id;
        }
    }

    void readTimeouts(const char* key, std::optional<std::array<std::uint16_t, 7>>& target) {
        const json* value = find(key);
        if (value == nullptr) return;
        if (!value->is_array()) return failType(key, "an array of 7 numbers", *value);
        std::array<std::uint16_t, 7> timeouts{};
        if (value->size() != timeouts.size()) {
            return fail(key, "needs 7 numbers, but has " + std::to_string(value->size()));
        }
        for (std::size_t i = 0; i < timeouts.size(); ++i) {
            const auto number = wholeNumber(key, (*value)[i], 0, UINT16_MAX);
            if (!number) return;
            timeouts[i] = static_cast<std::uint16_t>(*number);
        }
        target = timeouts;
    }

    void readTexts(const char* key, std::vector<std::string>& target) {
        const json* value = find(key);
        if (value == nullptr) return;
        if (!value->is_array()) return failType(key, "an array of texts", *value);
        std::vector<std::string> texts;
        for (const json& element : *value) {
            if (!element.is_string()) return failType(key, "an array of texts", element);
            texts.push_back(element.get<std::string>());
        }
        target = std::move(texts);
    }

    /// One text or several, each a SHA-256.
    void readDigests(const char* key, std::vector<std::string>& target) {
        const json* value = find(key);
        if (value == nullptr) return;
        std::vector<std::string> texts;
        if (value->is_string()) {
            texts = {value->get<std::string>()};
        } else {
            readTexts(key, texts);
        }
        for (std::string& text : texts) {
            lowerAsciiInto(text, std::string(text));
            const auto isHex = [](char c) { return hexDigit(c).has_value(); };
            if (text.size() != 64 || !std::all_of(text.begin(), text.end(), isHex))
                return fail(key, "'" + text + "' is not a SHA-256 of 64 hexadecimal digits");
        }
        target = std::move(texts);
    }

    void readPolicy(const char* key, ReconnectPolicy& target) {
        std::string text(reconnectPolicyName(target));
        read(key, text);
        if (failure_) return;
        auto policy = parseReconnectPolicy(text);
        if (policy) {
            target = policy.value();
        } else {
            failure_ = policy.error();
        }
    }

    void readDefaultEvent(const char* key, DefaultEvent& target) {
        const json* value = find(key);
        if (value == nullptr) return;
        if (value->is_string() && !value->get_ref<const std::string&>().empty()) {
            target = parseDefaultEvent(value->get<std::string>(), target);
        } else if (!value->is_number()) {
            fail(key, "must be a number, the name of an event, or \"auto\"");
        } else if (const auto number = wholeNumber(key, *value, 0, UINT16_MAX)) {
            target = {static_cast<std::uint16_t>(*number)};
        }
    }

    void readFirstPid(const char* key, xcp::FirstPids& target) {
        std::string text = target == xcp::FirstPids::told ? "ecu" : "plan";
        read(key, text);
        if (failure_) return;
        if (text != "ecu" && text != "plan")
            return fail(key, "'" + text + "' is neither \"ecu\" nor \"plan\"");
        target = text == "ecu" ? xcp::FirstPids::told : xcp::FirstPids::planned;
    }

    /// A text that is one of two.
    void readChoice(const char* key, std::pair<const char*, const char*> texts,
                    std::optional<bool>& isSecond) {
        if (find(key) == nullptr) return;
        std::string text;
        read(key, text);
        if (failure_) return;
        if (text != texts.first && text != texts.second) {
            return fail(key,
                        fmt::format("'{}' is neither \"{}\" nor \"{}\"", text, texts.first, texts.second));
        }
        isSecond = text == texts.second;
    }

    /// One of some small numbers.
    void readOneOf(const char* key, std::initializer_list<std::uint8_t> allowed,
                   std::optional<std::uint8_t>& target) {
        read(key, target);
        if (failure_ || !target || find(key) == nullptr) return;
        if (std::find(allowed.begin(), allowed.end(), *target) == allowed.end())
            fail(key, fmt::format("{} is none of {}", *target, fmt::join(allowed, ", ")));
    }

    /// A number from `minimum` on.
    template <std::unsigned_integral T>
    void readFrom(const char* key, T minimum, std::optional<T>& target) {
        const json* value = find(key);
        if (value == nullptr) return;
        if (const auto number = wholeNumber(key, *value, minimum, std::numeric_limits<T>::max()))
            target = static_cast<T>(*number);
    }

    /// For a section that is not left out without harm.
    void wantObject(const char* key) {
        const json* value = find(key);
        if (value != nullptr && !value->is_object()) failType(key, "an object", *value);
    }

    bool has(const char* key) const { return object_.contains(key); }

    /// Runs `fill` on each object of the array below `key`.
    template <typename Fill>
    void eachSection(const char* key, Fill fill) {
        const json* value = find(key);
        if (value == nullptr) return;
        if (!value->is_array() || value->empty()) return failType(key, "an array of objects", *value);
        for (std::size_t i = 0; i < value->size() && !failure_; ++i) {
            const std::string place = fmt::format("{}[{}]", key, i);
            if (!(*value)[i].is_object()) return failType(place.c_str(), "an object", (*value)[i]);
            Section inner((*value)[i], pathOf(place), failure_);
            fill(inner);
            if (!failure_) inner.warnUnknown();
        }
    }

    /// Runs `fill` on the object below `key` when there is one.
    template <typename Fill>
    void section(const char* key, Fill fill) {
        const json* value = find(key);
        if (value == nullptr) return;
        if (!value->is_object()) {
            log::warn("configuration: {} is not an object and is ignored", pathOf(key));
            return;
        }
        Section inner(*value, pathOf(key), failure_);
        fill(inner);
        inner.warnUnknown();
    }

    void warnUnknown() const {
        for (const auto& [key, value] : object_.items()) {
            if (!known_.contains(key)) log::warn("configuration: unknown key {}", pathOf(key));
        }
    }

    /// Of several faults the first one counts.
    void fail(const char* key, const std::string& reason) {
        if (failure_) return;
        failure_ = Error{ErrorCode::invalidArgument, "configuration: " + pathOf(key) + ": " + reason};
    }

  private:
    std::string pathOf(const std::string& key) const { return path_.empty() ? key : path_ + "." + key; }

    const json* find(const char* key) {
        known_.insert(key);
        if (failure_) return nullptr;
        const auto found = object_.find(key);
        return found == object_.end() ? nullptr : &*found;
    }

    void failType(const char* key, const char* wanted, const json& value) {
        fail(key, std::string("must be ") + wanted + ", but is " + value.type_name());
    }

    std::optional<std::uint64_t> wholeNumber(const char* key, const json& value, std::uint64_t minimum,
                                             std::uint64_t maximum) {
        if (!value.is_number()) {
            failType(key, "a number", value);
            return std::nullopt;
        }
        const auto number = unsignedNumber(value);
        if (number && *number >= minimum && *number <= maximum) return number;
        fail(key, value.dump() + " is not a whole number from " + std::to_string(minimum) + " to " +
                      std::to_string(maximum));
        return std::nullopt;
    }

    const json& object_;
    const std::string path_;
    std::optional<Error>& failure_;
    std::set<std::string, std::less<>> known_;
};

void fillCan(Section& section, SessionConfig::Can& can) {
    section.read("interface", can.interface);
    section.read("bitrate", can.bitrate);
    section.read("dataBitrate", can.dataBitrate);
    section.read("fd", can.fd);
    section.readCanId("cmdId", can.cmdId);
    section.readCanId("resId", can.resId);
    section.read("maxDlcRequired", can.maxDlcRequired);
    section.section("daqIds", [&](Section& ids) { ids.readIdsByList(can.daqIds); });
}

std::filesystem::path below(const std::filesystem::path& directory, const std::string& text) {
    const std::filesystem::path path = text;
    // An empty text means "none", not the directory itself.
    return text.empty() || path.has_root_directory() ? path : directory / path;
}

/// The same wherever it is written to or used from.
std::filesystem::path fromRoot(const std::filesystem::path& path) {
    std::error_code failure;
    const auto whole = path.empty() ? path : std::filesystem::absolute(path, failure).lexically_normal();
    return failure ? path : whole;
}

using IdentityCheck = SessionConfig::IdentityCheck;
constexpr std::array kIdentityChecks = {std::pair("warn", IdentityCheck::warn),
                                        std::pair("refuse", IdentityCheck::refuse),
                                        std::pair("off", IdentityCheck::off)};

std::string_view identityCheckName(IdentityCheck check) {
    return kIdentityChecks.at(static_cast<std::size_t>(check)).first;
}

using OnReset = SessionConfig::OnReset;
constexpr std::array kOnResets = {std::pair("tell", OnReset::tell), std::pair("stop", OnReset::stop),
                                  std::pair("reapply", OnReset::reapply)};

void fillSecurity(Section& section, const std::filesystem::path& baseDirectory,
                  SessionConfig::Security& security) {
    std::string library;
    section.read("library", library);
    security.library = fromRoot(below(baseDirectory, library));
    section.readTexts("command", security.command);
    if (!security.command.empty() && security.command.front().find('/') != std::string::npos)
        security.command.front() = fromRoot(below(baseDirectory, security.command.front())).string();
    section.readMilliseconds("timeoutMs", 1, security.timeout);
    section.readDigests("sha256", security.sha256);
    if (!security.library.empty() && !security.command.empty())
        section.fail("command", "there is a library, too: one of them computes the keys");
    if (security.library.empty() && (security.command.empty() || security.command.front().empty()))
        section.fail("library", "neither a library nor a command is named, so nothing computes keys");
}

void fillReconnect(Section& section, SessionConfig::Reconnect& reconnect) {
    section.readPolicy("policy", reconnect.policy);
    section.read("attempts", reconnect.attempts);
    section.readMilliseconds("intervalMs", 1, reconnect.interval);
    section.readMilliseconds("heartbeatMs", 1, reconnect.heartbeat);
}

void fillOverrides(Section& section, SessionConfig::Overrides& overrides) {
    constexpr std::uint16_t kLeastDto = 8;
    section.readOneOf("granularity", {1, 2, 4}, overrides.granularity);
    std::optional<bool> isMotorola;
    section.readChoice("byteOrder", {"intel", "motorola"}, isMotorola);
    if (isMotorola) overrides.byteOrder = *isMotorola ? ByteOrder::bigEndian : ByteOrder::littleEndian;
    section.readFrom("maxDto", kLeastDto, overrides.maxDto);
    section.section("timestamp", [&](Section& stamp) {
        stamp.readOneOf("size", {0, 1, 2, 4}, overrides.timestamp.size);
        stamp.readFrom("tickNs", std::uint32_t{1}, overrides.timestamp.tickNs);
        stamp.read("fixed", overrides.timestamp.fixed);
    });
    section.read("ignoreDaqRunningBit", overrides.ignoreDaqRunningBit);
}

void fillIdentity(Section& section, SessionConfig::IdentityCheck& check) {
    std::string text(identityCheckName(check));
    section.read("check", text);
    for (const auto& [name, value] : kIdentityChecks) {
        if (text == name) check = value;
    }
    if (text == identityCheckName(check)) return;
    section.fail("check", fmt::format("'{}' is none of \"refuse\", \"warn\" and \"off\"", text));
}

void fillCalibration(Section& section, OnReset& onReset) {
    std::string text(kOnResets.at(static_cast<std::size_t>(onReset)).first);
    section.read("onReset", text);
    for (const auto& [name, value] : kOnResets) {
        if (text != name) continue;
        onReset = value;
        return;
    }
    section.fail("onReset", fmt::format("'{}' is none of \"tell\", \"stop\" and \"reapply\"", text));
}

void fillConfig(Section& document, const std::filesystem::path& baseDirectory, SessionConfig& config) {
    document.read("name", config.name);
    std::string a2l;
    document.read("a2l", a2l);
    if (document.has("a2l")) config.a2l = below(baseDirectory, a2l);
    document.section("can", [&](Section& section) { fillCan(section, config.can); });
    document.section("udp", [&](Section& section) {
        section.read("host", config.udp.host);
        section.read("port", config.udp.port);
    });
    document.section("serial", [&](Section& section) {
        section.read("port", config.serial.port);
        section.read("baudrate", config.serial.baudrate);
        section.readMilliseconds("resetDelayMs", 0, config.serial.resetDelay);
    });
    document.section("xcp", [&](Section& section) {
        section.readTimeouts("timeoutsMs", config.xcp.timeoutsMs);
        section.read("useShortUpload", config.xcp.useShortUpload);
        section.read("connectAttempts", config.xcp.connectAttempts);
        section.read("modifyBits", config.xcp.modifyBits);
        section.readMilliseconds("connectTimeoutMs", 0, config.xcp.connectTimeout);
        section.section("overrides", [&](Section& inner) { fillOverrides(inner, config.xcp.overrides); });
    });
    document.section("daq", [&](Section& section) {
        section.read("useTimestamps", config.daq.useTimestamps);
        section.readFraction("maxBusLoad", config.daq.maxBusLoad);
        section.readDefaultEvent("defaultEvent", config.daq.defaultEvent);
        section.readFirstPid("firstPid", config.daq.firstPid);
        std::optional<bool> isA2l;
        section.readChoice("source", {"ecu", "a2l"}, isA2l);
        if (isA2l) config.daq.source = *isA2l ? DaqTold::a2l : DaqTold::ecu;
    });
    document.section("reconnect", [&](Section& section) { fillReconnect(section, config.reconnect); });
    document.wantObject("security");
    document.section("security",
                     [&](Section& section) { fillSecurity(section, baseDirectory, config.security); });
    document.section("identity", [&](Section& section) { fillIdentity(section, config.identityCheck); });
    document.section("calibration", [&](Section& section) { fillCalibration(section, config.onReset); });
    document.readTexts("measurement", config.measurement);
    document.section("display", [&](Section& section) { section.read("exact", config.display.exact); });
}

constexpr const char* kEcus = "ecus";

/// Beside "ecus" it would be for all of them, which cannot be.
void refuseOwnKeys(Section& root) {
    for (const char* key : {"name", "udp", "serial", "measurement"}) {
        if (root.has(key)) root.fail(key, "stands in each of the \"ecus\", not beside them");
    }
}

void checkEcuName(Section& ecu, const std::string& name, const std::vector<SessionConfig>& before) {
    if (name.empty()) return;  // that of the A2L
    if (const std::string why = whyNoEcuName(name); !why.empty()) return ecu.fail("name", why);
    for (const SessionConfig& other : before) {
        if (other.name == name) return ecu.fail("name", "another ECU is called '" + name + "', too");
    }
}

void fillEcu(Section& ecu, const std::filesystem::path& baseDirectory, const SessionConfig& defaults,
             std::vector<SessionConfig>& ecus) {
    if (ecu.has(kEcus)) return ecu.fail(kEcus, "an ECU holds no others");
    SessionConfig config = defaults;
    // Of the media CAN comes first: the bus that the others share is not for an ECU that names another one.
    if ((ecu.has("udp") || ecu.has("serial")) && !ecu.has("can")) config.can = {};
    if (ecu.has("security")) config.security = {};
    fillConfig(ecu, baseDirectory, config);
    checkEcuName(ecu, config.name, ecus);
    ecus.push_back(std::move(config));
}

void fillDocument(Section& root, const std::filesystem::path& baseDirectory, ConfigDocument& document) {
    if (root.has(kEcus)) refuseOwnKeys(root);
    fillConfig(root, baseDirectory, document.one);
    root.eachSection(kEcus, [&](Section& ecu) { fillEcu(ecu, baseDirectory, document.one, document.ecus); });
    if (document.isOfSeveral()) document.one = {};
}

constexpr int kMaxDepth = 64;
/// Far above any configuration; a device that never ends is not read for ever.
constexpr std::size_t kMaxSize = std::size_t{16} << 20U;

// The library keeps the last of two equal keys without a word.
json parseWarningOfDuplicates(std::string_view text) {
    std::vector<std::set<std::string>> keys;
    const auto watch = [&keys](int depth, json::parse_event_t event, json& parsed) {
        // An open level costs many times the byte that opens it; ours are three.
        if (depth > kMaxDepth) throw std::length_error("nested deeper than 64 levels");
        if (event == json::parse_event_t::object_start) {
            keys.emplace_back();
        } else if (event == json::parse_event_t::object_end) {
            keys.pop_back();
        } else if (event == json::parse_event_t::key &&
                   !keys.back().insert(parsed.get<std::string>()).second) {
            log::warn("configuration: key {} stands twice, the last one counts", parsed.get<std::string>());
        }
        return true;
    };
    constexpr bool kAllowExceptions = true;
    constexpr bool kIgnoreComments = true;
    return json::parse(text, watch, kAllowExceptions, kIgnoreComments);
}

ordered_json canDocument(const SessionConfig::Can& can) {
    ordered_json section;
    section["interface"] = can.interface;
    if (can.bitrate) section["bitrate"] = *can.bitrate;
    if (can.dataBitrate) section["dataBitrate"] = *can.dataBitrate;
    section["fd"] = can.fd;
    if (can.cmdId) section["cmdId"] = fmt::format("0x{:X}", *can.cmdId);
    if (can.resId) section["resId"] = fmt::format("0x{:X}", *can.resId);
    section["maxDlcRequired"] = can.maxDlcRequired;
    for (const auto& [list, id] : can.daqIds)
        section["daqIds"][std::to_string(list)] = fmt::format("0x{:X}", id);
    return section;
}

ordered_json defaultEventDocument(const DefaultEvent& event) {
    if (event.automatic) return "auto";
    if (!event.name.empty()) return event.name;
    return event.number;
}

/// Null when nothing is overruled.
ordered_json overridesDocument(const SessionConfig::Overrides& overrides) {
    ordered_json section;
    if (overrides.granularity) section["granularity"] = *overrides.granularity;
    if (overrides.byteOrder)
        section["byteOrder"] = *overrides.byteOrder == ByteOrder::bigEndian ? "motorola" : "intel";
    if (overrides.maxDto) section["maxDto"] = *overrides.maxDto;
    const SessionConfig::Timestamp& stamp = overrides.timestamp;
    if (stamp.size) section["timestamp"]["size"] = *stamp.size;
    if (stamp.tickNs) section["timestamp"]["tickNs"] = *stamp.tickNs;
    if (stamp.fixed) section["timestamp"]["fixed"] = *stamp.fixed;
    if (overrides.ignoreDaqRunningBit) section["ignoreDaqRunningBit"] = true;
    return section;
}

ordered_json securityDocument(const SessionConfig::Security& security) {
    ordered_json section;
    if (!security.library.empty()) section["library"] = security.library.generic_string();
    if (!security.command.empty()) section["command"] = security.command;
    section["timeoutMs"] = security.timeout.count();
    if (!security.sha256.empty()) section["sha256"] = security.sha256;
    return section;
}

ordered_json documentOf(const SessionConfig& config) {
    ordered_json document;
    document["name"] = config.name;
    document["a2l"] = config.a2l.generic_string();
    document["can"] = canDocument(config.can);
    if (!config.udp.host.empty() || config.udp.port) {
        document["udp"]["host"] = config.udp.host;
        if (config.udp.port) document["udp"]["port"] = *config.udp.port;
    }
    if (!config.serial.port.empty()) {
        auto& serial = document["serial"];
        serial["port"] = config.serial.port;
        if (config.serial.baudrate) serial["baudrate"] = *config.serial.baudrate;
        serial["resetDelayMs"] = config.serial.resetDelay.count();
    }
    auto& xcp = document["xcp"];
    if (config.xcp.timeoutsMs) xcp["timeoutsMs"] = *config.xcp.timeoutsMs;
    xcp["useShortUpload"] = config.xcp.useShortUpload;
    xcp["connectAttempts"] = config.xcp.connectAttempts;
    if (config.xcp.modifyBits) xcp["modifyBits"] = true;
    if (config.xcp.connectTimeout) xcp["connectTimeoutMs"] = config.xcp.connectTimeout->count();
    if (auto overrides = overridesDocument(config.xcp.overrides); !overrides.is_null())
        xcp["overrides"] = std::move(overrides);
    auto& daq = document["daq"];
    daq["useTimestamps"] = config.daq.useTimestamps;
    daq["maxBusLoad"] = config.daq.maxBusLoad;
    daq["defaultEvent"] = defaultEventDocument(config.daq.defaultEvent);
    if (config.daq.firstPid == xcp::FirstPids::planned) daq["firstPid"] = "plan";
    if (config.daq.source == DaqTold::a2l) daq["source"] = "a2l";
    auto& reconnect = document["reconnect"];
    reconnect["policy"] = reconnectPolicyName(config.reconnect.policy);
    reconnect["attempts"] = config.reconnect.attempts;
    reconnect["intervalMs"] = config.reconnect.interval.count();
    reconnect["heartbeatMs"] = config.reconnect.heartbeat.count();
    if (config.security.configured()) document["security"] = securityDocument(config.security);
    if (config.identityCheck != SessionConfig::IdentityCheck::warn)
        document["identity"]["check"] = identityCheckName(config.identityCheck);
    if (config.onReset != SessionConfig::OnReset::tell)
        document["calibration"]["onReset"] = kOnResets.at(static_cast<std::size_t>(config.onReset)).first;
    document["measurement"] = config.measurement;
    if (config.display != SessionConfig::Display{}) document["display"]["exact"] = config.display.exact;
    return document;
}

ordered_json documentOf(const ConfigDocument& document) {
    if (!document.isOfSeveral()) return documentOf(document.one);
    ordered_json ecus = ordered_json::array();
    for (const SessionConfig& ecu : document.ecus)
        ecus.push_back(documentOf(ecu));
    return {{kEcus, std::move(ecus)}};
}

Result<SessionConfig> onlyEcu(ConfigDocument document) {
    if (!document.isOfSeveral()) return std::move(document.one);
    return Error{ErrorCode::invalidArgument, "configuration: several ECUs, where one is wanted"};
}

std::string dumped(const ordered_json& document, ordered_json::error_handler_t onBadText) {
    return document.dump(2, ' ', false, onBadText);
}

/// `others`: why the text may be another's.
Result<std::string> readWhole(const std::filesystem::path& path, const StopToken& stop, std::string& others) {
    const UniqueFd file = openForReading(path);
    if (!file.valid()) {
        const int reason = errno;
        return Error::withReasonAsHint(ErrorCode::notFound, reason,
                                       "cannot open configuration " + path.string());
    }
    others = whyOthersMayWrite(file.get()).value_or("");
    std::string text;
    std::array<char, 16384> block;
    ssize_t count = 0;
    do {
        count = readUnlessStopped(file.get(), block.data(), block.size(), stop);
        if (count > 0) text.append(block.data(), static_cast<std::size_t>(count));
    } while (count > 0 && text.size() <= kMaxSize);
    const int failure = count < 0 ? errno : 0;
    if (text.size() > kMaxSize) {
        return Error{ErrorCode::invalidArgument, "configuration " + path.string() + " is larger than 16 MiB"};
    }
    if (failure != 0) {
        return Error{ErrorCode::ioError, "cannot read configuration " + path.string(), failure};
    }
    return text;
}

}  // namespace

std::string_view reconnectPolicyName(ReconnectPolicy policy) {
    return kPolicyNames.at(static_cast<std::size_t>(policy));
}

Result<ReconnectPolicy> parseReconnectPolicy(std::string_view text) {
    const auto found = std::find(kPolicyNames.begin(), kPolicyNames.end(), text);
    if (found == kPolicyNames.end()) {
        return Error{ErrorCode::invalidArgument, "unknown reconnect policy '" + std::string(text) + "'"};
    }
    return static_cast<ReconnectPolicy>(found - kPolicyNames.begin());
}

DefaultEvent parseDefaultEvent(const std::string& text, const DefaultEvent& before) {
    if (text == "auto") return {before.number, "", true};
    const auto number = parseUnsigned(text, NumberBase::decimal, UINT16_MAX);
    if (number) return {static_cast<std::uint16_t>(number.value())};
    return {0, text};
}

std::string whyNoEcuName(std::string_view name) {
    const auto stands = [](char c) {
        return static_cast<unsigned char>(c) <= ' ' || c == '\x7f' ||
               std::string_view("/@*?=\"").find(c) != std::string_view::npos;
    };
    if (name.empty()) return "the name is empty";
    if (std::none_of(name.begin(), name.end(), stands)) return {};
    return fmt::format("'{}' is no name for one of several ECUs: blanks and / @ * ? = \" have no place in it",
                       name);
}

Result<ConfigDocument> configDocumentFromJson(std::string_view text,
                                              const std::filesystem::path& baseDirectory) {
    try {
        const json parsed = parseWarningOfDuplicates(text);
        ConfigDocument document;
        if (!parsed.is_object()) {
            log::warn("configuration: the document is not an object and is ignored");
            return document;
        }
        std::optional<Error> failure;
        Section root(parsed, "", failure);
        fillDocument(root, baseDirectory, document);
        if (failure) return *failure;
        root.warnUnknown();
        return document;
    } catch (const std::exception& e) {
        return Error{ErrorCode::invalidArgument, std::string("configuration: ") + e.what()};
    }
}

Result<SessionConfig> sessionConfigFromJson(std::string_view text,
                                            const std::filesystem::path& baseDirectory) {
    auto document = configDocumentFromJson(text, baseDirectory);
    if (!document) return document.error();
    return onlyEcu(std::move(document).value());
}

std::string sessionConfigToJson(const SessionConfig& config) {
    return dumped(documentOf(config), ordered_json::error_handler_t::replace);
}

std::string configDocumentToJson(const ConfigDocument& document) {
    return dumped(documentOf(document), ordered_json::error_handler_t::replace);
}

Result<ConfigDocument> loadConfigDocument(const std::filesystem::path& path, const StopToken& stop) {
    std::string others;
    auto text = readWhole(path, stop, others);
    if (!text) return text.error();
    auto document = configDocumentFromJson(text.value(), path.parent_path());
    if (!document) {
        Error error = document.error();
        error.message = path.string() + ": " + error.message;
        return error;
    }
    const auto refuse = [&](SessionConfig& config) {
        if (config.security.configured() && !others.empty())
            config.security.refusal = "\"security\" in " + path.string() + " is refused: " + others;
    };
    refuse(document.value().one);
    std::for_each(document.value().ecus.begin(), document.value().ecus.end(), refuse);
    return document;
}

Result<SessionConfig> loadSessionConfig(const std::filesystem::path& path, const StopToken& stop) {
    auto document = loadConfigDocument(path, stop);
    if (!document) return document.error();
    return onlyEcu(std::move(document).value());
}

Result<void> saveSessionConfig(const std::filesystem::path& path, const SessionConfig& config) {
    return saveConfigDocument(path, {config, {}});
}

Result<void> saveConfigDocument(const std::filesystem::path& path, const ConfigDocument& document) {
    std::string text;
    try {
        text = dumped(documentOf(document), ordered_json::error_handler_t::strict) + "\n";
    } catch (const json::exception& e) {
        return Error{ErrorCode::invalidArgument, "cannot write " + path.string() + ": " + e.what()};
    }
    if (const int failure = replaceOrWrite(path, text); failure != 0) {
        return Error::withReasonAsHint(codeFromErrno(failure), failure, "cannot write " + path.string());
    }
    return {};
}

}  // namespace lm::session
