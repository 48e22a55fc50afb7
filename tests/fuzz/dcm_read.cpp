// DCM files of other products.
#include "parameter_form.h"
#include "params/dcm_reader.h"
#include "params/dcm_writer.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm;
    fuzz::checkForm(fuzz::Input(data, size).rest(), params::readDcm, params::writeDcm);
    return 0;
}
