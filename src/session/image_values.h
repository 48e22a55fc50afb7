// Values and objects of a memory image, by the A2L: what an ECU's are, without the ECU.
//
// Threads: one at a time; a stop may be requested from any. Lifetime: owns the image, and has its share of
// the description.
#pragma once

#include <memory>

#include "a2l/object.h"
#include "core/stop_token.h"
#include "params/memory_file.h"
#include "session/file_memory.h"
#include "session/identity.h"
#include "session/joint_reading.h"
#include "session/named_values.h"
#include "session/values.h"

namespace lm::session {

class ImageValues final : public IValues {
  public:
    /// Logs the byte order that the values are read with.
    ImageValues(std::shared_ptr<const a2l::Description> description, params::MemoryFile file,
                const StopToken& stop);
    ImageValues(const ImageValues&) = delete;
    ImageValues& operator=(const ImageValues&) = delete;
    ~ImageValues() override = default;

    /// With what was written.
    const params::MemoryFile& file() const { return file_; }
    IMemory& memory() { return memory_; }

    /// What the image holds where the A2L has the EPK.
    const Identity& identity() const { return identity_; }
    /// As JointReading::run(). Error: Error::stopped.
    Result<void> readTogether(std::span<const a2l::Object> objects, const JointReading::Take& take);

    const a2l::Description& description() const override { return *description_; }
    /// For another image of the same ECU.
    const std::shared_ptr<const a2l::Description>& sharedDescription() const { return description_; }
    const NamedObjects& objects() const override { return objects_; }
    /// An image seldom holds the RAM, where measurements lie.
    bool canRead(const std::string& name) override;
    std::vector<Result<Reading>> read(std::span<const std::string> names) override;
    WriteOutcome write(std::string_view name, std::string_view text, WriteRights rights,
                       const BeforeWriting& beforeWriting = {}) override {
        return values_.write(name, text, rights, beforeWriting);
    }
    Result<ObjectReading> readObject(std::string_view name) override { return objects_.read(name); }
    ObjectWriting writeObject(const WriteWish& wish, const NamedObjects::Announce& announce) override {
        return objects_.write(wish, announce);
    }

  private:
    const std::shared_ptr<const a2l::Description> description_;
    params::MemoryFile file_;
    const StopToken stop_;
    FileMemory memory_;
    Identity identity_;
    NamedValues values_;
    NamedObjects objects_;
};

}  // namespace lm::session
