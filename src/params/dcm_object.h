// One parameter of a DCM file, line by line.
//
// Threads: one at a time. Lifetime: borrows the SetReading for messages.
#pragma once

#include <cstddef>
#include <vector>

#include "core/result.h"
#include "params/dcm_kinds.h"
#include "params/dcm_statements.h"
#include "params/set_reading.h"

namespace lm::params {

class DcmObject {
  public:
    /// `head` is of the kind. Errors, as of the other functions, with the line: no name, no counts.
    static Result<DcmObject> begin(const DcmKind& kind, const DcmStatement& head, SetReading& reading);

    /// A line between the head and END.
    Result<void> take(const DcmStatement& statement);
    /// At END: whether all is there that the head announced.
    Result<void> finish();

    const std::string& name() const { return parameter_.name; }
    std::size_t line() const { return line_; }

  private:
    explicit DcmObject(SetReading& reading) : reading_(&reading) {}

    Result<bool> takeTexts(const DcmStatement& statement);
    Result<bool> takePoints(const DcmStatement& statement);
    Result<void> takeRow(const DcmStatement& statement);
    Result<void> append(const DcmStatement& statement, bool isText, std::vector<value::Value>& values) const;
    Result<void> checkCount(std::string_view what, std::size_t count, std::size_t wanted) const;

    SetReading* reading_;
    const DcmKind* kind_ = nullptr;
    std::size_t line_ = 0;
    Parameter parameter_;
};

}  // namespace lm::params
