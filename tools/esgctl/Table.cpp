#include "Table.h"

#include <glib.h>
#include <libsmartcols.h>

#include <algorithm>
#include <memory>
#include <new>

#include "Text.h"

namespace esgctl {
namespace {

constexpr int kGap = 2;
constexpr int kNarrowestCell = 8;

using Table = std::shared_ptr<libscols_table>;

Table NewTable(const std::vector<std::string>& header, const Style& style) {
  Table table(scols_new_table(), scols_unref_table);
  if (table == nullptr || scols_table_set_column_separator(table.get(), "  ") != 0) {
    throw std::bad_alloc();
  }
  // Cells are printable already.
  scols_table_enable_noencoding(table.get(), 1);
  scols_table_enable_noheadings(table.get(), header.front().empty() ? 1 : 0);
  scols_table_enable_colors(table.get(), style.colour ? 1 : 0);
  for (const std::string& name : header) {
    libscols_column* const column = scols_table_new_column(table.get(), name.c_str(), 0, 0);
    if (column == nullptr) {
      throw std::bad_alloc();
    }
    scols_cell_set_color(scols_column_get_header(column), "bold");
  }
  return table;
}

}  // namespace

std::string Bold(const std::string& text, const Style& style) {
  return style.colour ? "\x1b[1m" + text + "\x1b[0m" : text;
}

std::string RenderTable(const std::vector<std::string>& header, std::vector<TableRow> rows,
                        const Style& style) {
  const Table table = NewTable(header, style);
  const bool labels = header.front().empty();
  const std::size_t last = header.size() - 1;
  int room = style.width;
  for (std::size_t i = 0; i <= last; ++i) {
    int width = DisplayWidth(header[i]);
    for (TableRow& row : rows) {
      row.cells[i] = Printable(row.cells[i]);
      width = std::max(width, DisplayWidth(row.cells[i]));
    }
    room -= i < last ? width + kGap : 0;
  }
  room = std::max(kNarrowestCell, room);
  for (TableRow& row : rows) {
    std::vector<std::string> parts = {row.cells[last]};
    if (style.width > 0) {
      parts = labels ? Wrap(parts[0], room) : std::vector{Cut(parts[0], room)};
    }
    for (const std::string& part : parts) {
      row.cells[last] = part;
      libscols_line* const line = scols_table_new_line(table.get(), nullptr);
      for (std::size_t i = 0; line != nullptr && i <= last; ++i) {
        scols_line_set_data(line, i, GuardDirection(row.cells[i]).c_str());
        row.cells[i].clear();
      }
      if (row.marked) {
        scols_line_set_color(line, "bold");
      }
      if (labels) {
        scols_cell_set_color(scols_line_get_cell(line, 0), "bold");
      }
    }
  }
  g_autofree char* text = nullptr;
  if (scols_print_table_to_string(table.get(), &text) != 0) {
    throw std::bad_alloc();
  }
  return std::string(text) + '\n';
}

}  // namespace esgctl
