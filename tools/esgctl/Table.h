#ifndef ESGCTL_TABLE_H
#define ESGCTL_TABLE_H

#include <string>
#include <vector>

#include "Output.h"
#include "Services.h"

namespace esgctl {

/// A row of any texts; a marked one stands out in colour.
struct TableRow {
  std::vector<std::string> cells;
  bool marked = false;
};

/// Rows in aligned columns. Only the last column is fitted. It is cut; if the header has no names,
/// it continues below itself instead, and the first column is bold.
std::string RenderTable(const std::vector<std::string>& header, std::vector<TableRow> rows,
                        const Style& style);

/// Services against time.
///
/// `|` marks where a programme starts, and `:` where it starts after others that are too short to
/// draw. `<` and `>` mark programmes that extend beyond the range, and dots time without a
/// programme. Where programmes overlap, the later one covers the earlier. `v` marks the present.
std::string RenderGrid(const Listings& listings, const TimeRange& range, Seconds now,
                       const Style& style);

}  // namespace esgctl

#endif
