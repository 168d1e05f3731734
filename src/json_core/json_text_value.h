#pragma once

#include "json_core/sw_json_value.h"
#include "json_core/sw_string.h"

/// What a quoted text stands for: a Boolean, Null, an Integer of 32 bits, a Double of single precision, or the
/// text itself. A number out of range gives 0 and a line on standard error.
SwJsonValue value_of_quoted_text(SwString text);

/// What a deciphered bare token stands for: like the above, but with the numbers of plain JSON, 64-bit integers
/// and doubles with exponents. A number out of range stays a text.
SwJsonValue value_of_bare_text(SwString text);
