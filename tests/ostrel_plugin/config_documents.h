#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "json_core/sw_json_document.h"

/// Configuration documents, and what two texts say about the settings: the schema, and the page for users.
namespace ostrel_test {

/// The document that `text` parses into; a failed expectation when it is malformed.
SwJsonDocument parsed_document(const std::string& text);

/// One leaf of the schema text.
struct SchemaSetting {
  std::string path;
  std::string type;
  nlohmann::ordered_json minimum;  ///< null where there is no range
  nlohmann::ordered_json maximum;
  nlohmann::ordered_json default_value;
};

/// All leaves of the schema text, in its order.
std::vector<SchemaSetting> schema_settings();

/// The text of a document that sets this one path.
std::string document_text(const std::string& path, const nlohmann::ordered_json& value);

/// One row of the tables of `docs/configuration.md`, in its own digits.
struct DocumentedSetting {
  std::string group;
  std::string key;
  std::string type;
  std::string minimum;  ///< empty where there is no range
  std::string maximum;
  std::string default_text;
};

/// All rows, in the order of the page.
std::vector<DocumentedSetting> documented_settings();

/// The text of the page's example of a document.
std::string documented_example();

}  // namespace ostrel_test
