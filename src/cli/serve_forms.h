// The JSON that `serve` gives, in the forms that the other commands have.
//
// Threads: what they hold may be called from any. Lifetime: they own copies.
#pragma once

#include "serve/forms.h"
#include "value/typed_text.h"

namespace lm::cli {

serve::Forms serveForms(value::NumberStyle style);

}  // namespace lm::cli
