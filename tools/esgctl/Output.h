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

/// Writes to standard output, unbuffered. Throws ClosedPipe, or a Failure if the output cannot be
/// written.
void Print(const std::string& text);

/// Writes a message to standard error after the name of the program.
void Say(const std::string& message);

/// Reserves standard output for Print and discards what others write there. Returns the descriptor
/// that Print writes to.
int KeepOutput();

}  // namespace esgctl

#endif
