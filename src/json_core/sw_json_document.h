#pragma once

#include <cstddef>
#include <utility>

#include "json_core/sw_json_value.h"
#include "json_core/sw_string.h"

/// A JSON document: its root value, and the parser. The parser touches no state and may run on several threads
/// at once; it never throws for bad input. It is recursive, so that the stack bounds the nesting depth.
///
/// Strings that read like a Boolean, a null or a number become that value; a comma may stand before a closing
/// bracket. With a `key`, quoted values and bare tokens are deciphered first; an empty key means plain JSON.
///
/// Every parse operation starts at `index`, moves it past what it read, and leaves `error` empty on success.
/// A non-empty error comes with a Null value and an index of the first byte that was not consumed.
class SwJsonDocument {
 public:
  SwJsonDocument() = default;
  explicit SwJsonDocument(SwJsonValue root_value) : root(std::move(root_value)) {}

  /// One value with the white space before it. What follows the value is the caller's to judge.
  SwJsonValue parseJson(const SwString& text, std::size_t& index, const SwString& key, SwString& error) const;
  /// `index` stands on the opening bracket.
  SwJsonValue parseArray(const SwString& text, std::size_t& index, const SwString& key,
                         SwString& error) const;
  /// `index` stands on the opening quote. The bytes are UTF-8. Empty on an error.
  SwString parseString(const SwString& text, std::size_t& index, SwString& error) const;
  /// Replaces `error` by the message, the index and up to 40 bytes of the text around it.
  void reportError(SwString& error, const SwString& text, std::size_t index, const char* message) const;

  SwJsonValue root;
};
