// The memory image that a command works on in place of an ECU: its option, and the image with its A2L.
//
// Threads: the main thread. Lifetime: results own everything.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "cli/command.h"
#include "session/image_values.h"

namespace lm::cli {

class ImageSource {
  public:
    /// --hex
    void addOption(OptionSet& options);
    bool isGiven() const { return file_.has_value(); }
    /// Of a command that works on an ECU or, without a connection, on an image.
    Needs needs(Needs most) const { return isGiven() ? Needs::configuration : most; }

    void takeFile(const std::string& file) { file_ = file; }

    enum class Purpose : std::uint8_t { reading, writing };
    /// With the A2L of the session, which must outlive it, of an image `beside` it, or else its own. Null
    /// when an error was told, that of an option which is for an ECU or of an image of another software
    /// included, or a stop was requested.
    std::unique_ptr<session::ImageValues> open(Workplace& place, Purpose purpose,
                                               const session::ImageValues* beside = nullptr);
    /// Of another software, or of no one knows which before writing: that was told.
    bool identityWarned() const { return identityWarned_; }

  private:
    Result<void> checkIdentity(const Workplace& place, Purpose purpose, const session::Identity& identity);

    std::optional<std::string> file_;
    bool identityWarned_ = false;
};

}  // namespace lm::cli
