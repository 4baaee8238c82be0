#ifndef ESG_TOOLS_FAILURE_H
#define ESG_TOOLS_FAILURE_H

#include <stdexcept>
#include <string>

namespace esg::tools {

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
