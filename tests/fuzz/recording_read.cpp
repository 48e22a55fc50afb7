// A whole recording: its description, records as the input makes them, damage to any of its files. A repair
// loses no whole record and leaves nothing that it could mend; what is then read is what a plain look at the
// records gives. An export ends whole or leaves nothing. At last a record file is one of another recording:
// what a whole record is, the file itself says, not the description.
#include <string>
#include <vector>

#include "recording_files.h"
#include "storage/care/recording_check.h"
#include "storage/care/recording_repair.h"
#include "storage/format/recording_events.h"
#include "storage/format/recording_format.h"
#include "storage/format/recording_meta.h"
#include "storage/read/recording_reader.h"
#include "support/temp_dir.h"

namespace lm::fuzz {
namespace {

namespace fs = std::filesystem;

std::string textsOf(const std::vector<storage::Finding>& findings) {
    std::string texts;
    for (const storage::Finding& finding : findings)
        texts += finding.text + "\n";
    return texts;
}

void checkMeta(const storage::RecordingInfo& info) {
    const std::string text = storage::metaToJson(info);
    const auto again = storage::metaFromJson(text);
    require(again.ok() && storage::metaToJson(again.value()) == text,
            "written and read again it is the same");
}

class Recording {
  public:
    Recording(const storage::RecordingReader& reader, Input& input)
        : reader_(reader), directory_(reader.directory()), input_(input) {
        count_ = std::min(groups().size(), kMostGroups);
        for (std::size_t i = 0; i < count_; ++i)
            makeRecordFile(recordFile(i), reader.info(), groups()[i], input);
    }

    void damage() {
        for (std::size_t deeds = input_.takeBelow(8); deeds > 0; --deeds)
            damageFile(directory_, input_);
    }

    void read(bool sound) {
        for (std::size_t i = 0; i < count_; ++i) {
            auto group = reader_.openGroup(i);
            if (group) checkReading(directory_, group.value(), input_, sound);
        }
    }

    void repair() {
        std::vector<KeptRecords> before;
        for (std::size_t i = 0; i < count_; ++i)
            before.emplace_back(recordFile(i), groups()[i].recordSize);
        const Bytes events = readFile(directory_ / storage::kEventFileName);
        std::size_t deeds = 0;
        const auto tell = [&deeds](const std::string&) { ++deeds; };
        const auto left = storage::repairRecording(directory_, {}, tell);
        require(left.ok(), "a recording that opens can be repaired");
        bool mixed = false;
        for (std::size_t i = 0; i < count_; ++i) {
            before[i].check(readFile(recordFile(i)));
            mixed = mixed || before[i].ofAnotherRecording;
        }
        const auto lines = events.rend() - std::find(events.rbegin(), events.rend(), '\n');
        require(
            isKept(events, static_cast<std::size_t>(lines), readFile(directory_ / storage::kEventFileName)),
            "no line of events is lost");
        require(!mixed || !left.value().empty(), "a file of another recording is told");
        const auto check = storage::checkRecording(directory_, {});
        require(check.ok(), "a recording that opens can be checked");
        require(textsOf(check.value().findings) == textsOf(left.value()), "what is left is what was told");
        deeds = 0;
        require(storage::repairRecording(directory_, {}, tell).ok() && deeds == 0, "repaired once for all");
    }

    /// Lines of events, of this recording or of none.
    void makeEvents() {
        const bool own = input_.take<std::uint8_t>() != 0;
        const std::string start = own ? storage::startLine(reader_.info()) : "";
        Bytes text(start.begin(), start.end());
        const auto more = input_.takeBytes(input_.takeBelow(2048));
        text.insert(text.end(), more.begin(), more.end());
        writeFile(directory_ / storage::kEventFileName, text);
    }

    /// Puts a file of records of another size in the place of one of the groups'.
    void exchange() {
        if (count_ == 0) return;
        const std::size_t group = input_.takeBelow(count_);
        storage::GroupInfo other = groups()[group];
        other.recordSize = static_cast<std::uint32_t>((other.recordSize + 1 + input_.takeBelow(64)) % 4096);
        if (other.recordSize == groups()[group].recordSize) return;
        makeRecordFile(recordFile(group), reader_.info(), other, input_);
        Bytes file = readFile(recordFile(group));
        file[input_.takeBelow(storage::kMagicSize)] ^= input_.take<std::uint8_t>();
        file.resize(file.size() + input_.takeBelow(64));
        writeFile(recordFile(group), file);
    }

  private:
    const std::vector<storage::GroupInfo>& groups() const { return reader_.info().groups; }
    fs::path recordFile(std::size_t group) const { return directory_ / storage::recordFileName(group); }

    const storage::RecordingReader& reader_;
    fs::path directory_;
    Input& input_;
    std::size_t count_ = 0;
};

}  // namespace
}  // namespace lm::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm::fuzz;
    Input input(data, size);
    const lm::test::TempDir dir;
    // The description ends with a zero byte.
    const auto length = static_cast<std::size_t>(std::find(data, data + size, 0) - data);
    writeFile(dir.path() / "meta.json", input.takeBytes(length));
    input.take<std::uint8_t>();
    const auto reader = lm::storage::RecordingReader::open(dir.path());
    if (!reader) return 0;
    checkMeta(reader.value().info());
    Recording recording(reader.value(), input);
    recording.repair();  // makes index and levels
    recording.damage();
    recording.read(false);
    recording.repair();
    recording.read(true);
    const std::filesystem::path output = dir.path() / "output";
    std::filesystem::create_directory(output);
    checkExport(reader.value(), output, input);
    recording.exchange();
    recording.makeEvents();
    recording.repair();
    return 0;
}
