#include "cli/command_check.h"

#include <algorithm>

#include <fmt/format.h>

#include "cli/option_set.h"
#include "cli/options.h"
#include "cli/stop_signal.h"
#include "core/printable_text.h"
#include "session/ecu_check.h"

namespace lm::cli {
namespace {

using session::CheckLine;

constexpr int kDifferent = 3;

std::string textOf(const CheckLine& line, const char* expectedBy) {
    std::string ecu = printableText(line.ecu);
    const std::string expected = printableText(line.expected);
    switch (line.state) {
        case CheckLine::State::different:
            return fmt::format("DIFFERENT: {}, {} {}", ecu, expectedBy, expected);
        case CheckLine::State::unknown:
            return fmt::format("not known: {}{}", ecu,
                               expected.empty() ? "" : fmt::format(", {} {}", expectedBy, expected));
        default:
            return ecu;
    }
}

const char* expectedBy(const CheckLine& line) {
    if (line.what.ends_with("checksum")) return "before";
    return line.what.ends_with("image") ? "the image has" : "the A2L says";
}

class CheckReport final : public IReport {
  public:
    explicit CheckReport(const session::CheckResult& result) : result_(result) {}

    void print(Output& output) const override {
        std::size_t same = 0;
        std::size_t different = 0;
        for (const CheckLine& line : result_.lines) {
            output.append(fmt::format("{:<8}{:<28}{}\n", mark(line), printableText(line.what),
                                      textOf(line, expectedBy(line))));
            same += line.state == CheckLine::State::same ? 1 : 0;
            different += line.state == CheckLine::State::different ? 1 : 0;
        }
        output.append(fmt::format("{} as expected, {} different, {} without anything to compare with\n", same,
                                  different, result_.lines.size() - same - different));
    }

    void write(JsonWriter& json) const override {
        json.key("checks").beginArray();
        for (const CheckLine& line : result_.lines) {
            json.beginObject();
            json.member("what", line.what);
            json.member("state", session::checkStateName(line.state));
            json.member("ecu", line.ecu);
            if (!line.expected.empty()) json.member("expected", line.expected);
            json.endObject();
        }
        json.endArray();
        json.member("different", result_.hasDifferences());
    }

  private:
    static const char* mark(const CheckLine& line) {
        static constexpr std::array<const char*, 4> kMarks = {"ok", "!!", "", "??"};
        return kMarks.at(static_cast<std::size_t>(line.state));
    }

    const session::CheckResult& result_;
};

/// Something that should have been compared could not be.
bool leavesOpen(const session::CheckResult& result) {
    return std::any_of(result.lines.begin(), result.lines.end(), [](const CheckLine& line) {
        return line.state == CheckLine::State::unknown && !line.expected.empty();
    });
}

}  // namespace

void CheckCommand::addOptions(OptionSet& options) {
    options.add("--save", saveTo_, "Write the checksums of the segments to this file");
    options.addFlag("--force", force_, "Overwrite the file of --save");
    options.add("--against", compareWith_,
                "Compare them with those that an earlier check wrote to this file");
    options.add("--hex", imageFile_, "Compare them with those of this memory image: Intel HEX or S-records");
}

Result<void> CheckCommand::prepare(Form /*form*/) {
    if (saveTo_ && !force_) {
        if (auto isNew = params::checkNewFile(*saveTo_); !isNew) {
            Error error = isNew.error();
            error.message = *saveTo_ + " already exists (--force overwrites it)";
            return error;
        }
    }
    if (imageFile_) {
        auto image = params::readMemoryFile(*imageFile_, stopToken());
        if (!image) return image.error();
        image_ = std::move(image).value();
    }
    if (!compareWith_) return {};
    auto loaded = session::loadChecksums(*compareWith_);
    if (!loaded) return loaded.error();
    against_ = std::move(loaded).value();
    return {};
}

int CheckCommand::unansweredCode() const {
    return kNoOneAnswered;
}

int CheckCommand::run(Workplace& place) {
    const auto checked =
        session::checkEcu(*place.session, against_ ? &*against_ : nullptr, image_ ? &*image_ : nullptr);
    if (!checked) {
        place.results.failOrStopped("check", checked.error());
        return checked.error().code == ErrorCode::timeout ? kNoOneAnswered : 1;
    }
    place.results.show(CheckReport(checked.value()));
    if (stopRequested()) return 1;
    if (saveTo_) {
        if (checked.value().sums.segments.empty()) {
            place.results.fail("save", {ErrorCode::unsupported, "there are no checksums to save"}, *saveTo_);
            return 1;
        }
        if (auto saved = session::saveChecksums(*saveTo_, checked.value().sums); !saved) {
            place.results.fail("save", saved.error(), *saveTo_);
            return 1;
        }
    }
    if (checked.value().hasDifferences()) return kDifferent;
    return leavesOpen(checked.value()) ? 1 : 0;
}

}  // namespace lm::cli
