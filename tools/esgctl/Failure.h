#ifndef ESGCTL_FAILURE_H
#define ESGCTL_FAILURE_H

#include <stdexcept>
#include <string>

namespace esgctl {

/// The exit statuses of the program.
enum class Status : int {
  Found = 0,
  Other = 1,
  Usage = 2,
  Away = 8,        ///< the service or the bus is not there
  Unreadable = 9,  ///< the answer cannot be read
  NotFound = 10,
};

/// What ends a command early: its exit status, and what to tell the user.
class Failure : public std::runtime_error {
 public:
  Failure(Status status, const std::string& message)
      : std::runtime_error(message), m_status(status) {}

  Status status() const { return m_status; }

 private:
  Status m_status;
};

/// Whoever read our output has gone; there is nobody left to tell.
class ClosedPipe {};

}  // namespace esgctl

#endif
