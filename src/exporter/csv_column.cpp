#include "exporter/csv_column.h"

#include <array>
#include <bit>
#include <charconv>

#include "exporter/number_text.h"
#include "value/value_text.h"

namespace lm::exporter {

void appendField(std::string& line, std::string_view field) {
    if (field.find_first_of(",\"\r\n") == std::string_view::npos) {
        line += field;
        return;
    }
    line += '"';
    for (const char c : field) {
        if (c == '"') line += '"';
        line += c;
    }
    line += '"';
}

CsvColumn::CsvColumn(const storage::SignalInfo& signal, const ExportOptions& options)
    : signal_(&signal),
      offset_(signal.recordOffset),
      raw_(options.raw),
      form_(formOf(signal, options)),
      exact_(signal.keepsIntegers()),
      decode_(value::rawDecoder(signal.coding)) {}

CsvColumn::Form CsvColumn::formOf(const storage::SignalInfo& signal, const ExportOptions& options) {
    if (options.raw) return value::isFloat(signal.coding.dataType) ? Form::number : Form::rawInteger;
    if (options.a2lFormat) return Form::formatted;
    if (signal.conversion->isVerbal()) return Form::verbal;
    const auto& line = signal.conversion->exactLine();
    const bool isRaw = signal.keepsIntegers() && line->isPowerOfTwo() && line->exponent == 0;
    return isRaw ? Form::rawInteger : Form::number;
}

/// What tells one cell from another, in the form that makeCell() needs.
std::uint64_t CsvColumn::rawBits(const std::uint8_t* bytes) const {
    if (form_ == Form::rawInteger || exact_) return value::decodeInteger(bytes, signal_->coding);
    return std::bit_cast<std::uint64_t>(decode_(bytes, signal_->coding));
}

void CsvColumn::makeCell(std::uint64_t bits) {
    lastBits_ = bits;
    cell_.clear();
    if (form_ == Form::rawInteger) return setInteger(bits);
    if (exact_) return setExact(bits);
    const auto raw = std::bit_cast<double>(bits);
    if (form_ == Form::formatted) {
        appendField(cell_, signal_->conversion->format(raw));
        return;
    }
    if (form_ == Form::verbal) {
        if (const auto text = signal_->conversion->verbalText(raw)) {
            appendField(cell_, *text);
            return;
        }
    }
    setNumber(raw_ ? raw : signal_->conversion->toPhysical(raw));
}

void CsvColumn::setInteger(std::uint64_t bits) {
    std::array<char, kNumberWidth> text{};
    char* end = text.data() + text.size();
    end = value::isSigned(signal_->coding.dataType)
              ? std::to_chars(text.data(), end, static_cast<std::int64_t>(bits)).ptr
              : std::to_chars(text.data(), end, bits).ptr;
    cell_.append(text.data(), end);
}

void CsvColumn::setExact(std::uint64_t bits) {
    const value::Exact raw = value::exactInteger(bits, signal_->coding);
    const auto style = form_ == Form::formatted ? value::NumberStyle::formatted : value::NumberStyle::exact;
    appendField(cell_, value::valueText(*signal_, value::physicalValue(*signal_, raw), style));
}

void CsvColumn::setNumber(double value) {
    std::array<char, kNumberWidth> text{};
    cell_.append(text.data(), writeShortest(text.data(), value));
}

}  // namespace lm::exporter
