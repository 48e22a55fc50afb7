// CDFX files of other products.
#include "parameter_form.h"
#include "params/cdfx_reader.h"
#include "params/cdfx_writer.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm;
    fuzz::checkForm(fuzz::Input(data, size).rest(), params::readCdfx, params::writeCdfx);
    return 0;
}
