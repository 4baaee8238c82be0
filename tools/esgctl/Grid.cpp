#include "Grid.h"

#include <algorithm>

#include "Text.h"

namespace esgctl {
namespace {

constexpr int kNarrowestGrid = 20;
constexpr int kWidestName = 24;
constexpr int kTickWidth = 8;  // "20:00" or "05-01", and room

/// The columns of times on the screen.
class Scale {
 public:
  Scale(const TimeRange& range, int columns) : m_range(range), m_columns(columns) {}

  int Columns() const { return m_columns; }
  int Column(Seconds time) const {
    const Seconds inside = std::clamp(time, m_range.from, m_range.to);
    return static_cast<int>((inside - m_range.from) * m_columns / (m_range.to - m_range.from));
  }

 private:
  TimeRange m_range;
  int m_columns;
};

Seconds TickStep(const TimeRange& range, int columns) {
  static constexpr Seconds kSteps[] = {300, 900, 1800, 3600, 7200, 10800, 21600, 43200, 86400};
  const Seconds length = range.to - range.from;
  for (const Seconds step : kSteps) {
    if (step * columns >= length * kTickWidth) {
      return step;
    }
  }
  const Seconds days = length * kTickWidth / columns / 86400 + 1;
  return days * 86400;
}

void Place(std::string& line, int column, const std::string& text) {
  const auto at = static_cast<std::size_t>(column);
  if (line.size() < at) {
    line.resize(at, ' ');
  }
  line.replace(at, text.size(), text);
}

std::string TickLine(const TimeRange& range, const Scale& scale) {
  const Seconds step = TickStep(range, scale.Columns());
  const Seconds offset = LocalOffset(range.from);
  std::string line;
  for (Seconds t = (range.from + offset + step - 1) / step * step - offset; t < range.to;
       t += step) {
    const std::string time = FormatTime(t, "%H:%M");
    const std::string label = time == "00:00" ? FormatTime(t, "%m-%d") : time;
    if (scale.Column(t) + static_cast<int>(label.size()) <= scale.Columns()) {
      Place(line, scale.Column(t), label);
    }
  }
  return line;
}

std::string NowLine(Seconds now, const Scale& scale) {
  const std::string time = FormatTime(now, "%H:%M");
  const int column = scale.Column(now);
  const int width = static_cast<int>(time.size()) + 1;
  std::string line;
  if (column + 1 + width <= scale.Columns()) {
    Place(line, column, "v " + time);
  } else {
    Place(line, column - width, time + " v");
  }
  return line;
}

/// Any text in exactly `width` columns.
std::string Fitted(const std::string& text, int width) {
  return GuardDirection(Pad(Cut(Printable(text), width), width));
}

/// What one stretch of a row shows.
struct Stretch {
  int from;
  int to;
  const Showing* showing;  // null: nothing is on
  bool shortBefore;
};

std::vector<Stretch> Layout(const std::vector<Showing>& showings, const TimeRange& range,
                            const Scale& scale) {
  std::vector<Stretch> stretches;
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
    if (from > at) {
      stretches.push_back({at, from, nullptr, false});
    }
    stretches.push_back({from, to, &showing, shortBefore});
    shortBefore = false;
    at = to;
  }
  if (at < scale.Columns()) {
    stretches.push_back({at, scale.Columns(), nullptr, shortBefore});
  }
  return stretches;
}

std::string Draw(const Stretch& stretch, int columns, const TimeRange& range, Seconds now,
                 const Style& style) {
  const int width = stretch.to - stretch.from;
  if (stretch.showing == nullptr) {
    const char* const edge = stretch.shortBefore               ? ":"
                             : stretch.from == 0 || width == 1 ? "."
                                                               : "|";
    return edge + std::string(static_cast<std::size_t>(width - 1), '.');
  }
  const Showing& showing = *stretch.showing;
  const char* const edge = stretch.shortBefore ? ":" : showing.start < range.from ? "<" : "|";
  const bool goesOn = showing.end > range.to && stretch.to == columns && width > 1;
  const int room = width - 1 - (goesOn ? 1 : 0);
  const std::string title = Fitted(showing.program.Title(), room);
  return edge + (showing.IsOn(now) ? Bold(title, style) : title) + (goesOn ? ">" : "");
}

}  // namespace

std::string RenderGrid(const std::vector<Listing>& listings, const TimeRange& range, Seconds now,
                       const Style& style) {
  int names = 0;
  for (const Listing& listing : listings) {
    names = std::max(names, DisplayWidth(Printable(listing.service->Label())));
  }
  names = std::min({names, kWidestName, std::max(style.width / 4, kTickWidth)});
  const Scale scale(range, std::max(kNarrowestGrid, style.width - names - 1));
  const std::string margin(static_cast<std::size_t>(names + 1), ' ');

  std::string text = margin + TickLine(range, scale) + '\n';
  if (now >= range.from && now < range.to) {
    text += margin + Bold(NowLine(now, scale), style) + '\n';
  }
  for (const Listing& listing : listings) {
    text += Fitted(listing.service->Label(), names) + ' ';
    for (const Stretch& stretch : Layout(listing.showings, range, scale)) {
      text += Draw(stretch, scale.Columns(), range, now, style);
    }
    text += '\n';
  }
  return text;
}

}  // namespace esgctl
