#include "eval_table.h"

#include <algorithm>
#include <cstdio>

namespace ostrel_host {
namespace {

using Cells = std::vector<std::string>;

struct TableColumn {
  const char* heading;
  std::size_t figure;  // of eval_figures()
  int digits;
};

constexpr TableColumn kColumns[] = {{"AUC", 0, 3}, {"P@20", 1, 3},     {"IoU > 0.5", 2, 3}, {"own AUC", 7, 3},
                                    {"fps", 3, 1}, {"start ms", 4, 0}, {"held", 5, 3},      {"hidden", 6, 3}};
constexpr std::size_t kNameColumns = 2;

std::string cell_text(const std::optional<Spread>& figure, int digits) {
  if (!figure) return "-";
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", digits, figure->mean);
  std::string cell = text;
  if (!figure->deviation) return cell;
  std::snprintf(text, sizeof text, " \u00b1%.*f", digits, *figure->deviation);
  return cell + text;
}

std::string first_cell(const EvalRow& row, std::size_t all_sequences) {
  if (!row.sequence.empty()) return row.sequence;
  return row.sequences == all_sequences ? "mean" : "mean of " + std::to_string(row.sequences);
}

Cells row_cells(const EvalRow& row, std::size_t all_sequences) {
  Cells cells{first_cell(row, all_sequences), row.tracker, std::to_string(row.frames)};
  for (const TableColumn& column : kColumns) {
    cells.push_back(cell_text(row.figures[column.figure], column.digits));
  }
  return cells;
}

// Columns on the terminal: bytes that go on with a character of UTF-8 take none.
std::size_t width_of(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(
      text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; }));
}

std::string table_line(const Cells& cells, const std::vector<std::size_t>& widths) {
  std::string line = "|";
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const std::string gap(widths[i] - width_of(cells[i]), ' ');
    line += " " + (i < kNameColumns ? cells[i] + gap : gap + cells[i]) + " |";
  }
  return line + "\n";
}

std::string rule_line(const std::vector<std::size_t>& widths) {
  std::string line = "|";
  for (std::size_t i = 0; i < widths.size(); ++i) {
    line += std::string(widths[i] + 1, '-') + (i < kNameColumns ? "-|" : ":|");
  }
  return line + "\n";
}

}  // namespace

std::string eval_table(const std::vector<EvalRow>& rows, std::size_t all_sequences) {
  std::vector<Cells> lines{{"sequence", "tracker", "frames"}};
  for (const TableColumn& column : kColumns) lines.front().emplace_back(column.heading);
  for (const EvalRow& row : rows) lines.push_back(row_cells(row, all_sequences));
  std::vector<std::size_t> widths(lines.front().size(), 3);
  for (const Cells& cells : lines) {
    for (std::size_t i = 0; i < cells.size(); ++i) widths[i] = std::max(widths[i], width_of(cells[i]));
  }
  std::string text = table_line(lines.front(), widths) + rule_line(widths);
  for (std::size_t i = 1; i < lines.size(); ++i) text += table_line(lines[i], widths);
  return text;
}

}  // namespace ostrel_host
