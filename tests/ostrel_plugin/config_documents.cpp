#include "ostrel_plugin/config_documents.h"

#include <gtest/gtest.h>

#include <sstream>

#include "ostrel_plugin/src/ostrel_config_io.h"
#include "support/document_tables.h"

namespace ostrel_test {
namespace {

using nlohmann::ordered_json;

ordered_json member_or_null(const ordered_json& leaf, const char* name) {
  return leaf.contains(name) ? leaf.at(name) : ordered_json();
}

DocumentedSetting documented_setting(const std::vector<std::string>& cells) {
  const std::size_t slash = cells.at(0).find('/');
  DocumentedSetting setting{
      cells[0].substr(0, slash), cells[0].substr(slash + 1), cells.at(1), "", "", cells.at(3)};
  const std::string between = " to ";
  const std::size_t middle = cells.at(2).find(between);
  if (middle == std::string::npos) {
    EXPECT_EQ(cells[2], "") << setting.key;
    return setting;
  }
  setting.minimum = cells[2].substr(0, middle);
  setting.maximum = cells[2].substr(middle + between.size());
  return setting;
}

}  // namespace

SwJsonDocument parsed_document(const std::string& text) {
  std::size_t index = 0;
  SwString error;
  SwJsonDocument document;
  document.root = SwJsonDocument().parseJson(text, index, "", error);
  EXPECT_EQ(error, "") << text;
  return document;
}

std::vector<SchemaSetting> schema_settings() {
  std::vector<SchemaSetting> settings;
  const ordered_json schema = ordered_json::parse(ostrel_cfg::schema());
  for (const auto& group : schema.at("properties").items()) {
    for (const auto& leaf : group.value().at("properties").items()) {
      const ordered_json& value = leaf.value();
      settings.push_back({group.key() + "/" + leaf.key(), value.at("type"), member_or_null(value, "minimum"),
                          member_or_null(value, "maximum"), value.at("default")});
    }
  }
  return settings;
}

std::string document_text(const std::string& path, const ordered_json& value) {
  const std::size_t slash = path.find('/');
  ordered_json document;
  document[path.substr(0, slash)][path.substr(slash + 1)] = value;
  return document.dump();
}

std::string documented_example() {
  std::istringstream page(repository_text("docs/configuration.md"));
  std::string example;
  bool inside = false;
  for (std::string line; std::getline(page, line);) {
    if (inside && line == "```") break;
    if (inside) example += line + "\n";
    inside = inside || line == "```json";
  }
  return example;
}

std::vector<DocumentedSetting> documented_settings() {
  std::istringstream page(repository_text("docs/configuration.md"));
  std::vector<DocumentedSetting> settings;
  for (std::string line; std::getline(page, line);) {
    const std::vector<std::string> cells = table_cells(line);
    if (cells.size() == 6 && line.rfind("| `", 0) == 0 && cells[0].find('/') != std::string::npos) {
      settings.push_back(documented_setting(cells));
    }
  }
  return settings;
}

}  // namespace ostrel_test
