#include "session/image_values.h"

#include <utility>

#include "core/log.h"

namespace lm::session {
namespace {

const char* nameOf(ByteOrder order) {
    return order == ByteOrder::bigEndian ? "Motorola" : "Intel";
}

/// No ECU says what is so: what the A2L leaves open, or says in two ways, is told.
void tellByteOrder(const a2l::Description& description) {
    const auto& layer = description.xcp.protocolLayer;
    const ByteOrder taken = description.byteOrder.value_or(ByteOrder::littleEndian);
    if (layer && layer->byteOrder && *layer->byteOrder != taken) {
        log::warn("the A2L says {} for its values and {} for the ECU: {} is taken, values may be wrong",
                  nameOf(taken), nameOf(*layer->byteOrder), nameOf(taken));
    } else if (!description.byteOrder && !(layer && layer->byteOrder)) {
        log::warn("the A2L tells no byte order: Intel (little-endian) is assumed");
    }
    const unsigned granularity = layer && layer->addressGranularity ? *layer->addressGranularity : 1U;
    log::info("image: byte order {}, address granularity {} (addresses count bytes)", nameOf(taken),
              granularity);
}

}  // namespace

ImageValues::ImageValues(std::shared_ptr<const a2l::Description> description, params::MemoryFile file,
                         const StopToken& stop)
    : description_(std::move(description)),
      file_(std::move(file)),
      stop_(stop),
      memory_(file_),
      identity_(readIdentity(memory_, description_->parameters)),
      values_(*description_, memory_, stop),
      objects_(*description_, memory_, stop) {
    identity_.ofImage = true;
    tellByteOrder(*description_);
}

Result<void> ImageValues::readTogether(std::span<const a2l::Object> objects, const JointReading::Take& take) {
    ObjectAccess access(memory_, stop_);
    for (std::size_t i = 0; i < objects.size(); ++i) {
        if (stop_.requested()) return Error::stopped("stopped");
        take(i, access.read(objects[i]));
    }
    return {};
}

bool ImageValues::canRead(const std::string& name) {
    if (!objects_.exists(name)) return false;
    const auto reading = objects_.read(name);
    return reading.ok() || reading.error().code != ErrorCode::notFound;
}

std::vector<Result<Reading>> ImageValues::read(std::span<const std::string> names) {
    return values_.read(names).values;
}

}  // namespace lm::session
