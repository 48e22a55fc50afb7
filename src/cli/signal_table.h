// The lines of a table of signals that is drawn in place: texts and a size in, lines of the screen out.
//
// Threads: belongs to one thread. Lifetime: owns everything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace lm::cli {

struct ScreenSize {
    std::size_t width = 80;
    std::size_t height = 24;

    bool operator==(const ScreenSize&) const = default;
};

struct ScreenLine {
    enum class Style : std::uint8_t { plain, heading, alarm };
    std::string text;
    Style style = Style::plain;

    bool operator==(const ScreenLine&) const = default;
};

/// What changes of a signal; texts that do not steer the terminal, as all here.
struct SignalRow {
    std::string value;
    std::string least;
    std::string greatest;
    std::string rate;
};

struct TableStatus {
    std::string summary;
    std::string losses;   ///< in words; shown whole, however many lines they take; empty for none
    std::string message;  ///< the last one, empty for none
};

class SignalTable {
  public:
    struct Fixed {
        std::string name;
        std::string unit;
    };
    /// No column of numbers is wider than `number` characters.
    SignalTable(std::vector<Fixed> signals, std::size_t number);

    std::size_t count() const { return signals_.size(); }

    /// How many signals there is room for.
    std::size_t room(ScreenSize size, const TableStatus& status) const;

    /// At most `height` lines of at most `width` characters. `rows` are those of the signals from `first` on,
    /// as many as there is room for or left. A column never gets narrower, so that nothing jumps.
    std::vector<ScreenLine> lines(ScreenSize size, const TableStatus& status, std::size_t first,
                                  const std::vector<SignalRow>& rows);

  private:
    struct Widths {
        std::size_t name;
        std::size_t value;
        std::size_t unit;
        std::size_t extreme;
        std::size_t rate;

        std::size_t total() const;
    };

    static std::vector<ScreenLine> statusLines(ScreenSize size, const TableStatus& status);
    Widths fitted(std::size_t width) const;
    static std::string rowText(const Widths& widths, const Fixed& fixed, const SignalRow& row);

    const std::vector<Fixed> signals_;
    const std::size_t greatestNumber_;
    Widths wanted_;
};

}  // namespace lm::cli
