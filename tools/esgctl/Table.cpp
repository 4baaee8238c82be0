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
constexpr int kNarrowestGrid = 20;
constexpr int kWidestName = 24;
constexpr int kTickWidth = 8;  // "20:00" or "05-01", and room

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

/// The columns of times on the screen.
struct Scale {
  TimeRange range;
  int columns;

  int Column(Seconds time) const {
    const Seconds inside = std::clamp(time, range.from, range.to);
    return static_cast<int>((inside - range.from) * columns / (range.to - range.from));
  }
};

Seconds TickStep(const Scale& scale) {
  static constexpr Seconds kSteps[] = {300, 900, 1800, 3600, 7200, 10800, 21600, 43200, kDay};
  const Seconds length = scale.range.to - scale.range.from;
  for (const Seconds step : kSteps) {
    if (step * scale.columns >= length * kTickWidth) {
      return step;
    }
  }
  return (length * kTickWidth / scale.columns / kDay + 1) * kDay;
}

std::string TickLine(const Scale& scale) {
  const TimeRange& range = scale.range;
  const Seconds step = TickStep(scale);
  const Seconds offset = LocalOffset(range.from);
  std::string line;
  for (Seconds t = (range.from + offset + step - 1) / step * step - offset; t < range.to;
       t += step) {
    const std::string time = FormatTime(t, "%H:%M");
    const std::string label = time == "00:00" ? FormatTime(t, "%m-%d") : time;
    const auto column = static_cast<std::size_t>(scale.Column(t));
    if (column + label.size() <= static_cast<std::size_t>(scale.columns)) {
      line.resize(column, ' ');
      line += label;
    }
  }
  return line;
}

std::string NowLine(Seconds now, const Scale& scale) {
  const std::string time = FormatTime(now, "%H:%M");
  const int column = scale.Column(now);
  const int width = static_cast<int>(time.size()) + 1;
  const bool fits = column + 1 + width <= scale.columns;
  return std::string(static_cast<std::size_t>(fits ? column : column - width), ' ') +
         (fits ? "v " + time : time + " v");
}

/// `text` in bold where colours are wanted.
std::string Bold(const std::string& text, const Style& style) {
  return style.colour ? "\x1b[1m" + text + "\x1b[0m" : text;
}

/// Any text in exactly `width` columns.
std::string Fitted(const std::string& text, int width) {
  return GuardDirection(Pad(Cut(Printable(text), width), width));
}

/// Time without a programme, after one that is too short to draw if `shortBefore`.
std::string Gap(int from, int to, bool shortBefore) {
  if (from == to) {
    return {};
  }
  const char* const edge = shortBefore ? ":" : from == 0 || to - from == 1 ? "." : "|";
  return edge + std::string(static_cast<std::size_t>(to - from - 1), '.');
}

std::string Row(const std::vector<Showing>& showings, const Scale& scale, Seconds now,
                const Style& style) {
  const TimeRange& range = scale.range;
  std::string row;
  int at = 0;
  bool shortBefore = false;
  for (std::size_t i = 0; i < showings.size(); ++i) {
    const Showing& showing = showings[i];
    if (showing.end <= range.from || showing.start >= range.to) {
      continue;
    }
    const Seconds covered =
        i + 1 < showings.size() ? std::min(showing.end, showings[i + 1].start) : showing.end;
    const int from = std::max(at, scale.Column(showing.start));
    const int to = scale.Column(covered);
    if (to <= from) {
      shortBefore = true;
      continue;
    }
    const char* const edge = shortBefore ? ":" : showing.start < range.from ? "<" : "|";
    const bool goesOn = showing.end > range.to && to == scale.columns && to - from > 1;
    const std::string title = Fitted(showing.program.Title(), to - from - 1 - (goesOn ? 1 : 0));
    row += Gap(at, from, false) + edge + (showing.IsOn(now) ? Bold(title, style) : title);
    row += goesOn ? ">" : "";
    shortBefore = false;
    at = to;
  }
  return row + Gap(at, scale.columns, shortBefore);
}

}  // namespace

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

std::string RenderGrid(const Listings& listings, const TimeRange& range, Seconds now,
                       const Style& style) {
  int names = 0;
  for (const Listing& listing : listings) {
    names = std::max(names, DisplayWidth(Printable(listing.service->Label())));
  }
  names = std::min({names, kWidestName, std::max(style.width / 4, kTickWidth)});
  const Scale scale = {range, std::max(kNarrowestGrid, style.width - names - 1)};
  const std::string margin(static_cast<std::size_t>(names + 1), ' ');

  std::string text = margin + TickLine(scale) + '\n';
  if (now >= range.from && now < range.to) {
    text += margin + Bold(NowLine(now, scale), style) + '\n';
  }
  for (const Listing& listing : listings) {
    text += Fitted(listing.service->Label(), names) + ' ' +
            Row(listing.showings, scale, now, style) + '\n';
  }
  return text;
}

}  // namespace esgctl
