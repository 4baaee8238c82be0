#ifndef ESGCTL_TERMINAL_H
#define ESGCTL_TERMINAL_H

#include <string>

#include "Table.h"

namespace esgctl {

/// What the user asked for about looks.
struct Looks {
  std::string colour = "auto";  ///< auto, always or never
  int width = 0;                ///< 0: that of the terminal
};

/// How tables look: cut on a terminal only, unless a width was asked for.
Style TableStyle(const Looks& looks);

/// How the grid looks: always fitted into a width.
Style GridStyle(const Looks& looks);

/// The columns of the terminal behind a descriptor.
int TerminalWidth(int descriptor);

/// Writes to standard output and hands it on at once. Throws ClosedPipe, or a failure where the
/// output cannot be written.
void Print(const std::string& text);

/// Makes sure that the three standard descriptors are taken, so that no connection gets one of them
/// and the output with it. To be called first.
void ReserveStandardDescriptors();

/// From now on standard output is for Print alone; whatever else is written there goes nowhere. The
/// descriptor that Print writes to.
int KeepOutput();

}  // namespace esgctl

#endif
