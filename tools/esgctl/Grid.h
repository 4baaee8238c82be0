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
///
/// `|` marks where a programme starts, and `:` where it starts after others that are too short to
/// draw. `<` and `>` mark programmes that extend beyond the range, and dots time without a
/// programme. Where programmes overlap, the later one covers the earlier. `v` marks the present.
std::string RenderGrid(const std::vector<GridRow>& rows, const TimeRange& range, Seconds now,
                       const Style& style);

}  // namespace esgctl

#endif
