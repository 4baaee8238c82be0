#ifndef ESG_TOOLS_PROGRAM_H
#define ESG_TOOLS_PROGRAM_H

#include <stdexcept>
#include <string>
#include <string_view>

/// What every program needs to start, to tell the user something, and to end.
namespace esg::tools {

/// Opens those of the standard descriptors that are closed, so that no connection gets their
/// numbers. Call it first.
void ReserveStandardDescriptors();

/// Writes a message to standard error after the name of the program. Each of its lines is made
/// printable; the second and later ones are indented.
void Report(std::string_view program, std::string_view message);

/// Ends a program, or one command of it, early: its exit status, and what to tell the user.
class Failure : public std::runtime_error {
 public:
  Failure(int status, const std::string& message) : std::runtime_error(message), m_status(status) {}

  int Status() const { return m_status; }

 private:
  int m_status;
};

}  // namespace esg::tools

#endif
