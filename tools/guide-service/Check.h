#ifndef GUIDE_CHECK_H
#define GUIDE_CHECK_H

#include <iosfwd>

#include "Guide.h"

namespace esg::guide {

/// Writes what is in the guide: services, fragments and their numbers.
void PrintGuide(std::ostream& out, const Guide& guide);

/// Writes the list of services by which tools name them, a line each: NUMBER ALIAS ID NAME, "-"
/// for an unknown number or alias.
void PrintAliases(std::ostream& out, const Guide& guide);

}  // namespace esg::guide

#endif
