#ifndef ESGCTL_GRID_H
#define ESGCTL_GRID_H

#include <string>
#include <vector>

#include "Table.h"
#include "Time.h"

namespace esgctl {

/// One programme in a row of the grid.
struct GridCell {
  Seconds start;
  Seconds end;
  std::string title;
};

/// One service.
struct GridRow {
  std::string name;
  std::vector<GridCell> cells;  ///< by start
};

/// Services against time:
///
///                 20:00     20:30     21:00
///                      v 20:15
///     one        <Some film         |News   >
///     two        |Short  |.........:Quiz    |
///
/// `|` is where a programme begins, `<` and `>` where it goes on beyond the range, dots are time
/// without a programme, and `:` stands for `|` behind programmes that are too short to be drawn.
/// Where programmes overlap, the one that begins later covers the other. The row with `v` marks the
/// present.
std::string RenderGrid(const std::vector<GridRow>& rows, const TimeRange& range, Seconds now,
                       const Style& style);

}  // namespace esgctl

#endif
