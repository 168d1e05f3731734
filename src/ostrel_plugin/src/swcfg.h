#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "json_core/sw_json_document.h"

/// Forgiving readers of single settings. A value of another type is converted where a conversion exists, a
/// value out of range is clamped. Every function that returns a bool returns false, with `out` untouched,
/// where the path leads nowhere or the value has no usable form. Nothing throws but for want of memory;
/// everything is reentrant.
namespace swcfg {

/// Byte by byte with `tolower`.
std::string toLower(std::string text);
/// Without the white space at both ends, that of the parser.
std::string trim(std::string text);

/// The parts between slashes or backslashes, trimmed, without the empty ones.
std::vector<std::string> splitPath(std::string path);

/// A copy of the value at the end of `path`. Every part before the last must name an object. False for a path
/// without parts, and for a document whose root is no object. Keys with a slash or outer blanks are out of
/// reach.
bool getValue(const SwJsonObject& object, const std::string& path, SwJsonValue& out);
bool getValue(const SwJsonDocument& document, const std::string& path, SwJsonValue& out);

/// Numbers are true when they are not zero, texts when they read true, 1, yes or on in any case.
bool assignBoolValue(const SwJsonValue& value, bool& out);

/// Numbers and Booleans as text, a Double with six digits after the point.
bool assignStringValue(const SwJsonValue& value, std::string& out);

/// Texts are read by `std::stod`. A NaN, which only a text can bring, is neither below nor above a bound and
/// passes.
bool assignDoubleValue(const SwJsonValue& value, double& out, double min, double max);

/// An Integer counts with its low 32 bits, a Double is truncated towards zero (beyond 32 bits it is the
/// nearest end, as on the target's processor; a NaN is 0), texts are read by `std::stoi`. Clamping comes last.
bool assignIntValue(const SwJsonValue& value, std::int32_t& out, std::int32_t min, std::int32_t max);

/// The same for the value that `key`, a path, leads to.
bool assignBool(const SwJsonDocument& document, const std::string& key, bool& out);
bool assignString(const SwJsonDocument& document, const std::string& key, std::string& out);
bool assignInt(const SwJsonDocument& document, const std::string& key, std::int32_t& out, std::int32_t min,
               std::int32_t max);
bool assignDouble(const SwJsonDocument& document, const std::string& key, double& out, double min,
                  double max);
bool assignDouble(const SwJsonDocument& document, const std::string& key, float& out, double min, double max);

}  // namespace swcfg
