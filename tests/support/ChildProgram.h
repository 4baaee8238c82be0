#ifndef TESTS_CHILD_PROGRAM_H
#define TESTS_CHILD_PROGRAM_H

#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace esg::test {

/// A program that runs beside the test, with pipes as its standard streams. It is killed with this
/// object, and with the test.
class ChildProgram {
 public:
  enum Stream { kInput, kOutput, kErrors };
  static constexpr int kPipe = -1;

  /// `output` and `errors` are descriptors to use instead of a pipe. This object closes them.
  explicit ChildProgram(const std::vector<std::string>& command, int output = kPipe,
                        int errors = STDERR_FILENO);
  ~ChildProgram();
  ChildProgram(const ChildProgram&) = delete;
  ChildProgram& operator=(const ChildProgram&) = delete;

  /// The next line that it writes. None at its end.
  std::optional<std::string> ReadLine(Stream stream = kOutput);
  /// Reads lines up to one that contains `part`. Returns false if there is none.
  bool WaitForLine(const std::string& part, Stream stream = kOutput);

  void Write(const std::string& text);
  void CloseInput() { Close(kInput); }
  void Signal(int signal) const;

  /// Waits for its end. Returns the exit status, or the negated signal that ended it.
  int Wait();

  struct Result {
    int status;
    std::string output;
    std::string errors;
  };
  /// Returns the rest of what it writes, and how it ends.
  Result End();

 private:
  void Close(Stream stream);
  std::string ReadUpTo(char delimiter, Stream stream);

  pid_t m_pid = -1;
  std::array<std::FILE*, 3> m_streams = {};  // null where there is no pipe
};

}  // namespace esg::test

#endif
