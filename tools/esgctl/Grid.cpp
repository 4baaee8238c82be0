#include <algorithm>

#include "Table.h"
#include "Text.h"

namespace esgctl {
namespace {

constexpr int kNarrowestGrid = 20;
constexpr int kWidestName = 24;
constexpr int kTickWidth = 8;  // "20:00" or "05-01", and room

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
