// A configuration held against the plug-in's own schema, before the plug-in sees it.
#pragma once

#include <nlohmann/json.hpp>

namespace ostrel_host {

// The plug-in clamps, converts and ignores without a word, which suits a machine; a person who mistypes wants to
// know. Throws BadInput, with the setting's path, for the first member of `document` that `schema` (a JSON Schema
// of objects, arrays and plain values) has no property for, of another type, or outside its minimum and maximum.
// What the schema leaves open is not judged. An integer may be written with a fraction of zero.
void check_configuration(const nlohmann::json& document, const nlohmann::json& schema);

}  // namespace ostrel_host
