#ifndef ESGCTL_LOOK_H
#define ESGCTL_LOOK_H

#include <functional>
#include <string>
#include <vector>

#include "Commands.h"
#include "Showing.h"

namespace esgctl {

using Listings = std::vector<Listing>;

/// A command that looks at the programmes of the chosen services in a time range. By default it
/// lists those of a day.
struct View {
  /// Says that there are none.
  std::string nothing = "Nothing is on";
  /// Whether the guide of the first service tells why there are none.
  bool explains = true;
  /// Whether a service has at most one.
  bool single = false;
  /// The time range, seen from the present. A usage failure where the user wrote a wrong one.
  std::function<TimeRange()> range;
  std::function<Listings(const std::vector<Service>&, const TimeRange&)> ask;
  /// The output, which is used if there are programmes; that in JSON also if there are none.
  std::function<std::string(const Listings&, const TimeRange&)> show;
};

/// Asks and prints: once, or with --follow again whenever the output changes.
void Look(Session& session, const View& view);

/// What a command found at some moment.
struct Outcome {
  std::string text;     ///< to print
  std::string nothing;  ///< to say if there is no text
  Seconds changes = 0;  ///< when to look again, because a programme ends; 0: not known
};

/// Prints what `look` finds, and again whenever it has changed, until watching ends.
void Follow(Guide& guide, const std::function<Outcome()>& look);

using Showings = std::vector<const Showing*>;
Showings AllOf(const Listings& listings);

/// The programmes as a table, or in JSON. There a `single` programme of the one service that was
/// named is an object, and otherwise there is an array.
std::string Written(const Showings& showings, const Session& session, bool single = false);

}  // namespace esgctl

#endif
