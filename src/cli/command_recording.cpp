#include "cli/command_recording.h"

#include "storage/recording_reader.h"

namespace lm::cli {

int runRecording(const RecordingOptions& options, Output& output) {
    auto recording = storage::RecordingReader::open(options.directory);
    if (!recording) {
        printError("recording", recording.error());
        return 1;
    }
    output.append("recording      " + recording.value().info().name + "\n");
    return 0;
}

}  // namespace lm::cli
