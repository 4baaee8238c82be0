#ifndef ESGCTL_GRID_H
#define ESGCTL_GRID_H

#include <string>
#include <vector>

#include "Showing.h"
#include "Table.h"

namespace esgctl {

/// Services against time.
///
/// `|` marks where a programme starts, and `:` where it starts after others that are too short to
/// draw. `<` and `>` mark programmes that extend beyond the range, and dots time without a
/// programme. Where programmes overlap, the later one covers the earlier. `v` marks the present.
std::string RenderGrid(const std::vector<Listing>& listings, const TimeRange& range, Seconds now,
                       const Style& style);

}  // namespace esgctl

#endif
