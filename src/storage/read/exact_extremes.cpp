#include "storage/read/exact_extremes.h"

#include <cmath>
#include <utility>

namespace lm::storage {
namespace {

void add(ExactExtremes& extremes, Sample sample) {
    if (std::isnan(value::toDouble(sample.physical))) return;
    if (!extremes.least || sample.physical < extremes.least->physical) extremes.least = sample;
    if (!extremes.greatest || sample.physical > extremes.greatest->physical)
        extremes.greatest = std::move(sample);
}

}  // namespace

Result<std::vector<ExactExtremes>> exactExtremes(const GroupReader& group, const StopToken& stop) {
    const std::vector<SignalInfo>& signals = group.info().signals;
    std::vector<ExactExtremes> extremes(signals.size());
    RecordStream stream = group.read(group.all());
    for (;;) {
        auto batch = stream.next();
        if (!batch) return batch.error();
        if (stop.requested()) return Error::stopped("stopped");
        if (batch.value().count == 0) return extremes;
        for (std::size_t i = 0; i < signals.size(); ++i) {
            for (std::size_t n = 0; n < batch.value().count; ++n) {
                const std::uint8_t* bytes = batch.value().data(n) + signals[i].recordOffset;
                value::Value raw = value::rawValue(signals[i], bytes);
                value::Value physical = signals[i].conversion->toPhysical(raw);
                add(extremes[i], {std::move(raw), std::move(physical)});
            }
        }
    }
}

}  // namespace lm::storage
