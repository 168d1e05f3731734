#pragma once

#include "json_core/sw_json_document.h"
#include "ostrel_plugin/src/ostrel_config.h"

/// Configuration in and out of the plug-in.
namespace ostrel_cfg {

/// The configuration's description, a JSON Schema text of draft-07, NUL-terminated and constant for the life
/// of the process. Its defaults are those of a default-constructed `OstrelConfig`.
const char* schema() noexcept;

/// Writes what `document` says into the record: values out of range are clamped, values of another type are
/// converted where a conversion exists, everything absent, unusable or unknown leaves its member alone. True
/// when at least one member changed. Cannot fail; touches nothing but `config`.
bool apply(const SwJsonDocument& document, OstrelConfig& config);

}  // namespace ostrel_cfg
