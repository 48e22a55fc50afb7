// Whole objects and their parts as `get` and `set` show them, as text and as JSON.
//
// Threads: one thread. Lifetime: what is shown is borrowed.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/results.h"
#include "cli/terminal_plot.h"
#include "session/named_objects.h"
#include "value/value_text.h"

namespace lm::cli {

struct ObjectStyle {
    value::NumberStyle numbers = value::NumberStyle::formatted;
    std::optional<PlotStyle> plot;  ///< draw where there is something to draw
    std::string before = {};        ///< in front of each name: "ECU/" of one of several
};

/// What was read under a name, or why nothing was.
class ObjectReport : public IReport {
  public:
    ObjectReport(std::string_view name, const Result<session::ObjectReading>& reading,
                 const ObjectStyle& style)
        : name_(style.before + std::string(name)), reading_(reading), style_(style) {}

    void print(Output& output) const override;
    void write(JsonWriter& json) const override;

  protected:
    virtual void writeMembers(JsonWriter& json) const;

    const std::string name_;
    const Result<session::ObjectReading>& reading_;
    const ObjectStyle style_;

  private:
    void printRow(Output& output) const;
};

/// What became of an assignment to an object, and of the parameters that depend on it.
class ObjectWriteReport final : public ObjectReport {
  public:
    ObjectWriteReport(const session::WriteWish& wish, const session::ObjectWriting& writing,
                      const ObjectStyle& style);

    void print(Output& output) const override;

  private:
    void writeMembers(JsonWriter& json) const override;
    void writeHeld(JsonWriter& json, const session::HeldObject& held) const;
    bool printChange(Output& output) const;
    void tell(const std::string& what) const;

    const session::WriteWish& wish_;
    const session::ObjectWriting& writing_;
    std::string deviation_;  ///< with the element's name
};

}  // namespace lm::cli
