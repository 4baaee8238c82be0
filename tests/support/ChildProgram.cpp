#include "ChildProgram.h"

#include <glib.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <future>
#include <stdexcept>
#include <utility>

namespace esg::test {

ChildProgram::ChildProgram(const std::vector<std::string>& command, int output, int errors) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  struct Child {
    const std::array<int, 3> streams;
    const pid_t parent = getpid();
  } child{{kPipe, output, errors}};
  const GSpawnChildSetupFunc setUp = [](gpointer data) {
    const auto& self = *static_cast<Child*>(data);
    for (int i = 0; i < 3; ++i) {
      dup2(self.streams[static_cast<std::size_t>(i)], i);  // does nothing for a pipe
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != self.parent) {
      _exit(127);
    }
  };
  std::array<int, 3> pipes = {kPipe, kPipe, kPipe};
  GError* error = nullptr;
  if (g_spawn_async_with_pipes(nullptr, arguments.data(), nullptr,
                               GSpawnFlags(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD), setUp,
                               &child, &m_pid, &pipes[kInput],
                               output == kPipe ? &pipes[kOutput] : nullptr,
                               errors == kPipe ? &pipes[kErrors] : nullptr, &error) == FALSE) {
    throw std::runtime_error(error->message);
  }
  for (const Stream stream : {kInput, kOutput, kErrors}) {
    m_streams[stream] = fdopen(pipes[stream], stream == kInput ? "w" : "r");
    if (child.streams[stream] > STDERR_FILENO) {
      close(child.streams[stream]);
    }
  }
}

ChildProgram::~ChildProgram() {
  if (m_pid > 0) {
    Signal(SIGKILL);
    Wait();
  }
  for (const Stream stream : {kInput, kOutput, kErrors}) {
    Close(stream);
  }
}

std::string ChildProgram::ReadUpTo(char delimiter, Stream stream) {
  char* bytes = nullptr;
  std::size_t capacity = 0;
  const ssize_t size =
      m_streams[stream] == nullptr ? 0 : getdelim(&bytes, &capacity, delimiter, m_streams[stream]);
  std::string text(bytes, size > 0 ? static_cast<std::size_t>(size) : 0);
  std::free(bytes);
  return text;
}

std::optional<std::string> ChildProgram::ReadLine(Stream stream) {
  std::string line = ReadUpTo('\n', stream);
  if (line.empty() || line.back() != '\n') {
    return std::nullopt;
  }
  line.pop_back();
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

void ChildProgram::Write(const std::string& text) {
  if (std::fputs(text.c_str(), m_streams[kInput]) < 0 || std::fflush(m_streams[kInput]) != 0) {
    throw std::runtime_error("the program does not read");
  }
}

void ChildProgram::Close(Stream stream) {
  if (std::FILE* file = std::exchange(m_streams[stream], nullptr)) {
    std::fclose(file);
  }
}

void ChildProgram::Signal(int signal) const { kill(m_pid, signal); }

int ChildProgram::Wait() {
  int status = 0;
  const pid_t pid = std::exchange(m_pid, -1);
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

ChildProgram::Result ChildProgram::End() {
  // Reads both at once: the program would wait if one pipe were full.
  auto errors = std::async(std::launch::async, [this] { return ReadUpTo('\0', kErrors); });
  std::string output = ReadUpTo('\0', kOutput);
  return {Wait(), std::move(output), errors.get()};
}

}  // namespace esg::test
