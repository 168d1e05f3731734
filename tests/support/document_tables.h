#pragma once

#include <string>
#include <vector>

namespace ostrel_test {

/// The whole text of a file below the repository's root; a failed expectation when there is none.
std::string repository_text(const std::string& path);

/// The cells of a line "| a | b |" of a page, without the blanks and backticks around each; none for any other line.
std::vector<std::string> table_cells(const std::string& line);

/// The rows of the first table under a heading ("## Phases") of a page in docs/, without its two head lines.
/// A failed expectation where there is none.
std::vector<std::vector<std::string>> table_under(const std::string& page, const std::string& heading);

}  // namespace ostrel_test
