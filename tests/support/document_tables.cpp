#include "support/document_tables.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace ostrel_test {
namespace {

std::string trimmed(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(" `");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" `") - begin + 1);
}

// OSTREL_ROOT in the environment names the pages of tests that run beside no checkout.
std::string root() {
  const char* moved = std::getenv("OSTREL_ROOT");
  return moved != nullptr ? moved : OSTREL_ROOT;
}

}  // namespace

std::string repository_text(const std::string& path) {
  std::ifstream file(root() + "/" + path);
  EXPECT_TRUE(file.is_open()) << path;
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::vector<std::string> table_cells(const std::string& line) {
  std::vector<std::string> cells;
  std::istringstream stream(line);
  std::string cell;
  if (!std::getline(stream, cell, '|') || !cell.empty()) return cells;
  while (std::getline(stream, cell, '|')) cells.push_back(trimmed(cell));
  return cells;
}

std::vector<std::vector<std::string>> table_under(const std::string& page, const std::string& heading) {
  std::istringstream text(repository_text("docs/" + page));
  std::string line;
  while (std::getline(text, line) && line != heading) {
  }
  while (std::getline(text, line) && table_cells(line).empty()) {
  }
  std::getline(text, line);  // the rule below the head
  std::vector<std::vector<std::string>> rows;
  while (std::getline(text, line) && !table_cells(line).empty()) rows.push_back(table_cells(line));
  EXPECT_FALSE(rows.empty()) << heading;
  return rows;
}

}  // namespace ostrel_test
