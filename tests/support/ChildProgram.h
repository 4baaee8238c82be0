#ifndef TESTS_CHILD_PROGRAM_H
#define TESTS_CHILD_PROGRAM_H

#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace esg::test {

/// A program that runs beside the test, with pipes on its standard streams. Killed with this object
/// and with the test.
class ChildProgram {
 public:
  enum Stream { kOutput = STDOUT_FILENO, kErrors = STDERR_FILENO };
  static constexpr int kPipe = -1;

  /// `output` and `errors` are descriptors that it takes over, instead of a pipe.
  explicit ChildProgram(const std::vector<std::string>& command, int output = kPipe,
                        int errors = STDERR_FILENO);
  ~ChildProgram();
  ChildProgram(const ChildProgram&) = delete;
  ChildProgram& operator=(const ChildProgram&) = delete;

  /// The next line that it writes; none at its end, or when thirty seconds pass without one.
  std::optional<std::string> ReadLine(Stream stream = kOutput);
  /// Reads lines up to one with `part` in it; false where none comes.
  bool WaitForLine(const std::string& part, Stream stream = kOutput);

  void Write(const std::string& text) const;
  void CloseInput();
  void CloseOutput();
  void Signal(int signal) const;

  /// Waits for its end: the exit status, or the signal that ended it, negated.
  int Wait();

  struct Result {
    int status;
    std::string output;
    std::string errors;
  };
  /// The rest of what it writes, and how it ends.
  Result End();

 private:
  bool ReadMore(Stream stream);

  pid_t m_pid = -1;
  std::array<int, 3> m_pipes = {kPipe, kPipe, kPipe};
  std::array<std::string, 3> m_pending;
};

}  // namespace esg::test

#endif
