#include "PrivateBus.h"

#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <vector>

namespace esg::test {
namespace {

constexpr char kEverything[] = R"(
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>)";

}  // namespace

PrivateBus::PrivateBus(const std::string& policy, const std::string& settings) {
  chmod(m_folder.path.c_str(), 0755);  // other users may connect too
  const std::string address = "unix:path=" + m_folder.name + "/socket";
  setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
  m_folder.Write("bus.conf", "<busconfig>\n  <type>system</type>\n  <listen>" + address +
                                 "</listen>\n  <auth>EXTERNAL</auth>\n" +
                                 (policy.empty() ? kEverything : policy) + settings +
                                 "\n</busconfig>\n");
}

PrivateBus::~PrivateBus() { Stop(); }

void PrivateBus::Start() {
  if (m_daemon != nullptr) {
    return;
  }
  m_daemon = std::make_unique<ChildProgram>(
      std::vector<std::string>{"dbus-daemon", "--config-file=" + m_folder.name + "/bus.conf",
                               "--nofork", "--nopidfile", "--nosyslog", "--print-address=1"});
  if (!m_daemon->ReadLine()) {
    throw std::runtime_error("dbus-daemon does not start");
  }
}

void PrivateBus::Stop() {
  if (m_daemon != nullptr) {
    m_daemon->Signal(SIGTERM);
    m_daemon->Signal(SIGCONT);  // a stopped process handles SIGTERM only then
    m_daemon->Wait();
    m_daemon.reset();
  }
}

void PrivateBus::Kill() { m_daemon.reset(); }

void PrivateBus::Pause() { m_daemon->Signal(SIGSTOP); }

void PrivateBus::Resume() { m_daemon->Signal(SIGCONT); }

PrivateBus& TestBus() {
  static PrivateBus bus;
  return bus;
}

}  // namespace esg::test
