#ifndef ESGCTL_OUTPUT_H
#define ESGCTL_OUTPUT_H

#include <string>

#include "common/Program.h"

/// What the program tells its user: output, messages and exit statuses.
namespace esgctl {

using esg::tools::Failure;

/// The exit statuses of the program.
enum Status : int {
  kFound = 0,
  kOther = 1,
  kUsage = 2,
  kAway = 8,        ///< the service or the bus is not there
  kUnreadable = 9,  ///< the reply cannot be read
  kNotFound = 10,
};

/// The reader of the output has gone.
class ClosedPipe {};

/// How output may look.
struct Style {
  int width = 0;  ///< columns to fit into; 0: any
  bool colour = false;
};

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
