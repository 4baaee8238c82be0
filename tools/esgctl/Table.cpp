#include "Table.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "TextWidth.h"

namespace esgctl {
namespace {

constexpr int kGap = 2;
constexpr int kNarrowestCell = 8;

/// Breaks at spaces, or inside a word that is longer than a line.
std::vector<std::string> Wrap(std::string_view text, int width) {
  std::vector<std::string> lines(1);
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(' '), text.size());
    std::string_view word = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    const int used = DisplayWidth(lines.back());
    if (used > 0 && used + 1 + DisplayWidth(word) > width) {
      lines.emplace_back();
    } else if (used > 0) {
      lines.back() += ' ';
    }
    for (auto head = Prefix(word, width); head.size() < word.size(); head = Prefix(word, width)) {
      lines.back() += head;
      lines.emplace_back();
      word.remove_prefix(head.size());
    }
    lines.back() += word;
  }
  return lines;
}

}  // namespace

std::string Bold(const std::string& text, const Style& style) {
  return style.colour ? "\x1b[1m" + text + "\x1b[0m" : text;
}

Table::Table(std::vector<std::string> header) { m_rows.push_back({std::move(header), true}); }

void Table::AddRow(const std::vector<std::string>& cells, bool marked) {
  Row row{{}, marked};
  std::transform(cells.begin(), cells.end(), std::back_inserter(row.cells),
                 [](const std::string& cell) { return Printable(cell); });
  m_rows.push_back(std::move(row));
}

std::string Table::Render(const Style& style) const {
  const std::size_t last = m_rows.front().cells.size() - 1;
  std::vector<int> widths(last, 0);
  for (const Row& row : m_rows) {
    for (std::size_t i = 0; i < last; ++i) {
      widths[i] = std::max(widths[i], DisplayWidth(row.cells[i]));
    }
  }
  int before = 0;
  for (const int width : widths) {
    before += width + kGap;
  }
  std::string text;
  for (const Row& row : m_rows) {
    std::string line;
    for (std::size_t i = 0; i < last; ++i) {
      line += GuardDirection(Pad(row.cells[i], widths[i] + kGap));
    }
    const std::string& cell = row.cells[last];
    line += GuardDirection(
        style.width > 0 ? Cut(cell, std::max(kNarrowestCell, style.width - before)) : cell);
    text += (row.marked ? Bold(line, style) : line) + '\n';
  }
  return text;
}

std::string RenderFields(const std::vector<std::pair<std::string, std::string>>& fields,
                         const Style& style) {
  int labels = 0;
  for (const auto& field : fields) {
    labels = std::max(labels, DisplayWidth(field.first));
  }
  labels += kGap;
  std::string text;
  for (const auto& field : fields) {
    const std::string value = Printable(field.second);
    const std::vector<std::string> lines =
        style.width > 0 ? Wrap(value, std::max(kNarrowestCell, style.width - labels))
                        : std::vector<std::string>{value};
    std::string label = field.first;
    for (const std::string& line : lines) {
      text += Bold(Pad(label, labels), style) + GuardDirection(line) + '\n';
      label.clear();
    }
  }
  return text;
}

}  // namespace esgctl
