#include "PrivateBus.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

namespace {

constexpr char kEverything[] = R"(
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_type="method_return" send_requested_reply="true"/>
    <allow send_type="error" send_requested_reply="true"/>
    <allow receive_type="method_call"/>
    <allow receive_type="signal"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
  </policy>)";

[[noreturn]] void Throw(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

/// Becomes the daemon, which prints its address to `output`.
[[noreturn]] void Exec(const std::string& configuration, int output, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() == parent && dup2(output, STDOUT_FILENO) >= 0) {
    execlp("dbus-daemon", "dbus-daemon", configuration.c_str(), "--nofork", "--nopidfile",
           "--nosyslog", "--print-address=1", nullptr);
  }
  _exit(127);
}

}  // namespace

PrivateBus::PrivateBus(const std::string& policy, std::string socketPath) {
  m_folder = (std::filesystem::temp_directory_path() / "esg-bus-XXXXXX").string();
  if (mkdtemp(m_folder.data()) == nullptr) {
    Throw("mkdtemp");
  }
  chmod(m_folder.c_str(), 0755);  // other users may connect too
  if (socketPath.empty()) {
    socketPath = m_folder + "/socket";
  }
  m_address = "unix:path=" + socketPath;
  setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), 1);

  std::ofstream(m_folder + "/bus.conf")
      << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
         " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
         "<busconfig>\n  <type>system</type>\n  <listen>"
      << m_address << "</listen>\n  <auth>EXTERNAL</auth>\n"
      << (policy.empty() ? kEverything : policy) << "\n</busconfig>\n";
}

PrivateBus::~PrivateBus() {
  Stop();
  std::error_code ignored;
  std::filesystem::remove_all(m_folder, ignored);
}

void PrivateBus::Start() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    Throw("pipe2");
  }
  const std::string configuration = "--config-file=" + m_folder + "/bus.conf";
  const pid_t parent = getpid();
  m_pid = fork();
  if (m_pid == 0) {
    Exec(configuration, ends[1], parent);
  }
  close(ends[1]);
  char first = 0;
  const bool ready = m_pid > 0 && read(ends[0], &first, 1) == 1;
  close(ends[0]);
  if (!ready) {
    Kill();
    Throw("dbus-daemon does not start");
  }
}

void PrivateBus::Stop() { End(SIGTERM); }

void PrivateBus::Kill() { End(SIGKILL); }

void PrivateBus::End(int signal) {
  const pid_t pid = std::exchange(m_pid, -1);
  if (pid > 0) {
    kill(pid, signal);
    kill(pid, SIGCONT);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
}

PrivateBus& TestBus() {
  static PrivateBus bus;
  return bus;
}
