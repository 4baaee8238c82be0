#ifndef ESGCTL_OUTPUT_H
#define ESGCTL_OUTPUT_H

#include <string>

#include "Table.h"

namespace esgctl {

/// How the user wants the output.
struct OutputOptions {
  std::string colour = "auto";  ///< auto, always or never
  unsigned int width = 0;       ///< 0: that of the terminal
};

/// How tables look: cut on a terminal only, unless a width was asked for.
Style TableStyle(const OutputOptions& options);

/// How the grid looks: always fitted into a width.
Style GridStyle(const OutputOptions& options);

/// Whether standard output is a terminal.
bool OutputIsTerminal();

/// The columns of the terminal that a descriptor leads to.
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
