#include "cli/command_list.h"

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "a2l/description.h"
#include "a2l/leaf_search.h"
#include "cli/list_row.h"
#include "cli/message_output.h"
#include "cli/offline_a2l.h"
#include "cli/options.h"
#include "cli/stop_signal.h"
#include "core/log.h"
#include "session/ecu_group.h"
#include "session/folder_filter.h"
#include "session/name_pattern.h"

namespace lm::cli {
namespace {

using session::NamePattern;

/// Hands on the matching objects, kind by kind, each in file order.
template <typename Taker>
class Matcher {
  public:
    Matcher(const a2l::Description& description, const ListCommand::Options& options,
            const session::FolderFilter& folders, const Taker& take)
        : description_(description),
          options_(options),
          folders_(folders),
          take_(take),
          names_(options.pattern, NamePattern::Reading::search),
          units_(description) {}

    /// How many there are.
    std::size_t run() {
        const bool all = !options_.onlyMeasurements && !options_.onlyParameters && !options_.onlyAxes;
        if (all || options_.onlyMeasurements) takeMatches(description_.measurements);
        if (all || options_.onlyParameters) takeMatches(description_.characteristics);
        // Who names a folder wants all of it; there may be thousands of axes outside.
        if (options_.onlyAxes || (all && !folders_.takesAll())) takeMatches(description_.axisPoints);
        if (all) takeMatches(description_.blobs);
        for (const a2l::Instance& instance : description_.instances) {
            if (all) takeIfMatching(instance);
            if (takesLeaves(instance)) takeLeaves(instance);
        }
        return count_;
    }

    bool takesLeaves(const a2l::Instance& instance) const {
        const bool inFolder = !folders_.takes(instance.name) && folders_.takesPartsOf(instance.name);
        return options_.leaves || inFolder || reachesBelow(instance.name);
    }

    /// Of the leaves that are looked at. Part of a name may stand anywhere in it, but when it is what leads
    /// to the leaves.
    std::string_view beginning() const {
        const bool leads = !names_.hasWildcards() && !options_.leaves && folders_.takesAll();
        return leads ? std::string_view(options_.pattern) : names_.beginning();
    }

  private:
    void takeMatches(const auto& objects) {
        for (const auto& object : objects)
            takeIfMatching(object);
    }

    std::string_view descriptionOf(const auto& object) const { return object.longIdentifier; }
    std::string_view descriptionOf(const a2l::Instance& object) const {
        return description_.details(object).longIdentifier;
    }

    void takeIfMatching(const auto& object) {
        const bool matches =
            names_.matches(object.name) || (options_.inDescriptions && names_.matches(descriptionOf(object)));
        if (!matches || !folders_.takes(object.name)) return;
        take_(rowOf(description_, object, units_));
        ++count_;
    }

    /// The pattern begins with the instance and goes on with a part of it, or may match some by its
    /// wildcards.
    bool reachesBelow(std::string_view instance) const {
        if (names_.hasWildcards()) {
            return options_.pattern.find_first_of(".[") != std::string::npos &&
                   names_.mayMatchBelow(instance);
        }
        if (options_.pattern.size() <= instance.size()) return false;
        const char next = options_.pattern[instance.size()];
        return (next == '.' || next == '[') && a2l::NameBeginning(options_.pattern).allows(instance);
    }

    bool isWanted(const ListRow& row) const {
        const bool all = !options_.onlyMeasurements && !options_.onlyParameters && !options_.onlyAxes;
        return all || (row.letter == 'M' && options_.onlyMeasurements) ||
               (row.letter == 'P' && options_.onlyParameters) || (row.letter == 'A' && options_.onlyAxes);
    }

    void takeLeaves(const a2l::Instance& instance) {
        a2l::walkLeaves(description_, instance, a2l::NameBeginning(beginning()),
                        [this](const Result<a2l::Leaf>& found) {
                            if (stopRequested()) return false;
                            if (!found) return true;
                            const a2l::Leaf& leaf = found.value();
                            const bool matches = names_.matches(leaf.name);
                            if (!matches || !folders_.takes(leaf.name)) return true;
                            const ListRow row = rowOf(description_, leaf, units_);
                            if (!isWanted(row)) return true;
                            take_(row);
                            ++count_;
                            return true;
                        });
    }

    const a2l::Description& description_;
    const ListCommand::Options& options_;
    const session::FolderFilter& folders_;
    const Taker& take_;
    NamePattern names_;
    Units units_;
    std::size_t count_ = 0;
};

/// Before anything is shown: session::checkParts() of all whose parts are looked at.
Result<void> checkReach(const a2l::Description& description, const ListCommand::Options& options,
                        const session::FolderFilter& folders) {
    const auto nothing = [](const ListRow& /*row*/) {};
    const Matcher matcher(description, options, folders, nothing);
    const std::string_view pattern = options.pattern.empty() ? "*" : std::string_view(options.pattern);
    for (const a2l::Instance& instance : description.instances) {
        if (!matcher.takesLeaves(instance)) continue;
        auto few = session::checkParts(description, instance, matcher.beginning(), pattern, "listed");
        if (!few) return few;
    }
    return {};
}

/// What `list` looks through: the A2L of an ECU.
struct ListSource {
    std::string before;  ///< in front of each name: "ECU/" of one of several
    const a2l::Description* description;
    ListCommand::Options options;
    session::FolderFilter folders;
};

class ListReport final : public IReport {
  public:
    explicit ListReport(const std::vector<ListSource>& sources) : sources_(sources) {}

    void print(Output& output) const override {
        const std::size_t count = forEachMatch([&output](const ListSource& source, const ListRow& row) {
            appendLine(row, output);
            if (source.options.details) appendDetails(*source.description, row, output);
        });
        if (output.flush()) printMessage(std::to_string(count) + " object(s)\n");
    }

    void write(JsonWriter& json) const override {
        json.key("objects").beginArray();
        const std::size_t count = forEachMatch([&json](const ListSource& source, const ListRow& row) {
            writeRow(*source.description, row, json);
        });
        json.endArray();
        json.member("count", count);
    }

  private:
    template <typename Taker>
    std::size_t forEachMatch(const Taker& take) const {
        std::size_t count = 0;
        for (const ListSource& source : sources_) {
            std::string name;
            const auto takeNamed = [&](const ListRow& row) {
                if (source.before.empty()) return take(source, row);
                ListRow named = row;
                name = source.before + std::string(row.name);
                named.name = name;
                take(source, named);
            };
            count += Matcher(*source.description, source.options, source.folders, takeNamed).run();
        }
        return count;
    }

    const std::vector<ListSource>& sources_;
};

}  // namespace

Result<void> writeList(const a2l::Description& description, const ListCommand::Options& options,
                       JsonWriter& json) {
    const auto folders = session::FolderFilter::create(description, options.groups, options.functions);
    if (!folders) return folders.error();
    if (auto few = checkReach(description, options, folders.value()); !few) return few;
    const std::vector<ListSource> sources{{"", &description, options, folders.value()}};
    ListReport(sources).write(json);
    return {};
}

void ListCommand::addOptions(OptionSet& options) {
    options.add("pattern", options_.pattern, "Part of the name (case-insensitive)");
    options.addFlag("-p,--parameters", options_.onlyParameters, "Only parameters");
    options.addFlag("-m,--measurements", options_.onlyMeasurements, "Only measurements");
    options.addFlag("--axes", options_.onlyAxes, "Only shared axes (AXIS_PTS)");
    options.addFlag("--leaves", options_.leaves, "Also the parts of instances of structures");
    addFolders(options, options_.groups, options_.functions);
    options.addFlag("-l,--long", options_.details,
                    "Also limits, events, dimensions, axes, byte order and description");
    options.addFlag("-d,--descriptions", options_.inDescriptions, "Also search in descriptions");
}

int ListCommand::run(Workplace& place) {
    std::vector<std::string> names;
    for (const session::SessionConfig& ecu : place.ecuConfigs)
        names.push_back(ecu.name);
    const session::EcuText wanted = session::splitEcu(options_.pattern, names);
    std::vector<std::unique_ptr<a2l::Description>> descriptions;
    std::vector<ListSource> sources;
    for (std::size_t i = 0; i < std::max<std::size_t>(names.size(), 1); ++i) {
        const bool isOther = std::find(wanted.ecus.begin(), wanted.ecus.end(), i) == wanted.ecus.end();
        if (!wanted.ecus.empty() && isOther) continue;
        if (!names.empty()) place.config = place.ecuConfigs[i];
        const log::Subject subject(names.empty() ? "" : names[i]);
        auto loaded = loadA2l(place);
        if (!loaded) return 1;
        const auto& description =
            descriptions.emplace_back(std::make_unique<a2l::Description>(std::move(*loaded)));
        auto folders = session::FolderFilter::create(*description, options_.groups, options_.functions);
        // Of several ECUs one may have no such folder.
        if (!folders && i + 1 < names.size()) continue;
        if (!folders && sources.empty()) {
            place.results.fail("list", folders.error());
            return 1;
        }
        if (!folders) continue;
        Options options = options_;
        options.pattern = std::string(wanted.rest);
        if (auto few = checkReach(*description, options, folders.value()); !few) {
            place.results.fail("list", few.error());
            return 1;
        }
        sources.push_back({names.empty() ? "" : names[i] + "/", description.get(), std::move(options),
                           std::move(folders).value()});
    }
    place.results.show(ListReport(sources));
    return stopRequested() ? 1 : 0;
}

}  // namespace lm::cli
