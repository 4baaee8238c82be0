#include "ChildProgram.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

namespace esg::test {

ChildProgram::ChildProgram(const std::vector<std::string>& command, int output, int errors) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  std::array<int, 3> streams = {kPipe, output, errors};
  for (std::size_t i = 0; i < streams.size(); ++i) {
    if (streams[i] == kPipe) {
      int ends[2];
      if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
      }
      streams[i] = ends[i == STDIN_FILENO ? 0 : 1];
      m_pipes[i] = ends[i == STDIN_FILENO ? 1 : 0];
    }
  }
  const pid_t parent = getpid();
  m_pid = fork();
  if (m_pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
      _exit(127);
    }
    std::signal(SIGPIPE, SIG_DFL);  // which libdbus has this process ignore
    for (int i = 0; i < 3; ++i) {
      dup2(streams[static_cast<std::size_t>(i)], i);
    }
    execvp(arguments[0], arguments.data());
    _exit(127);
  }
  for (const int stream : streams) {
    if (stream > STDERR_FILENO) {
      close(stream);
    }
  }
}

ChildProgram::~ChildProgram() {
  if (m_pid > 0) {
    Signal(SIGKILL);
    Wait();
  }
  for (const int pipe : m_pipes) {
    close(pipe);
  }
}

bool ChildProgram::ReadMore(Stream stream) {
  pollfd descriptor{m_pipes[stream], POLLIN, 0};
  char bytes[4096];
  if (descriptor.fd == kPipe || poll(&descriptor, 1, 30'000) != 1) {
    return false;
  }
  const ssize_t size = read(descriptor.fd, bytes, sizeof bytes);
  m_pending[stream].append(bytes, size > 0 ? static_cast<std::size_t>(size) : 0);
  return size > 0;
}

std::optional<std::string> ChildProgram::ReadLine(Stream stream) {
  std::size_t end = 0;
  while ((end = m_pending[stream].find('\n')) == std::string::npos) {
    if (!ReadMore(stream)) {
      return std::nullopt;
    }
  }
  std::string line = m_pending[stream].substr(0, end);
  m_pending[stream].erase(0, end + 1);
  return line;
}

bool ChildProgram::WaitForLine(const std::string& part, Stream stream) {
  while (const std::optional<std::string> line = ReadLine(stream)) {
    if (line->find(part) != std::string::npos) {
      return true;
    }
  }
  return false;
}

void ChildProgram::Write(const std::string& text) const {
  if (write(m_pipes[STDIN_FILENO], text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw std::system_error(errno, std::generic_category(), "write");
  }
}

void ChildProgram::CloseInput() { close(std::exchange(m_pipes[STDIN_FILENO], kPipe)); }

void ChildProgram::CloseOutput() { close(std::exchange(m_pipes[kOutput], kPipe)); }

void ChildProgram::Signal(int signal) const { kill(m_pid, signal); }

int ChildProgram::Wait() {
  int status = 0;
  const pid_t pid = std::exchange(m_pid, -1);
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

ChildProgram::Result ChildProgram::End() {
  for (const Stream stream : {kOutput, kErrors}) {
    while (ReadMore(stream)) {
    }
  }
  return {Wait(), m_pending[kOutput], m_pending[kErrors]};
}

}  // namespace esg::test
