#pragma once

/// Configuration in and out of the plug-in.
namespace ostrel_cfg {

/// The configuration's description, a JSON Schema text of draft-07, NUL-terminated and constant for the life
/// of the process. Its defaults are those of a default-constructed `OstrelConfig`.
const char* schema() noexcept;

}  // namespace ostrel_cfg
