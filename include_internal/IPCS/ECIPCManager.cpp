#include "IPCS/ECIPCManager.h"

#include <cstdio>

#include "Assertion.h"
#include "IPCS/DBusHandles.h"
#include "IPCS/Wire.h"
#include "Log.h"

namespace {

/// What may wait for a bus that takes nothing; a signal beyond that is refused.
constexpr long kMaximumWaiting = 64L * 1024 * 1024;

/// No main loop serves the connection, so what the socket does not take at once would wait for the
/// next signal. Helps it out as long as the bus goes on taking, and drops what others have sent
/// here.
void Drain(DBusConnection* connection) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kStandstill(100);
  Clock::time_point last = Clock::now();
  const Clock::time_point deadline = last + std::chrono::seconds(5);
  while (dbus_connection_has_messages_to_send(connection) != FALSE && last < deadline) {
    if (dbus_connection_read_write(connection, static_cast<int>(kStandstill.count())) == FALSE) {
      return;
    }
    while (dbus_connection_dispatch(connection) == DBUS_DISPATCH_DATA_REMAINS) {
    }
    const Clock::time_point now = Clock::now();
    if (now - last >= kStandstill) {
      return;
    }
    last = now;
  }
}

}  // namespace

ECIPCManager::ECIPCManager() {
  ipcs::ConnectWithRetries([this] { return m_Connect(); });
  if (m_pConnection == nullptr) {
    ESG_REPORT("m_pConnection", "include_internal/IPCS/ECIPCManager");
    return;
  }
  dbus_threads_init_default();
}

ECIPCManager::~ECIPCManager() {
  if (m_pConnection != nullptr) {
    // Closed, not released: another thread may be sending.
    dbus_connection_close(m_pConnection);
  }
}

bool ECIPCManager::m_Connect() {
  ipcs::Error error;
  m_pConnection = ipcs::OpenSystemBus(error);
  if (m_pConnection == nullptr) {
    ESG_LOGE("Failed to connect to the D-BUS daemon: %s\n", error.Text());
    return false;
  }
  m_connectionId = dbus_bus_get_unique_name(m_pConnection);
  return true;
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): part of the interface
const char* ECIPCManager::m_ConvertMsgTypeToString(eECIPCMessageType type) {
  return wire::MemberName(type);
}

bool ECIPCManager::m_Send(const std::string& destination, eECIPCMessageType type, int number,
                          ESGMessageBuffer& payload) {
  char text[15];
  std::snprintf(text, sizeof(text), "%d", number);

  const ipcs::MessagePtr signal(dbus_message_new_signal(wire::kSignalPath, wire::kSignalInterface,
                                                        m_ConvertMsgTypeToString(type)));
  const bool addressed = destination.empty() ||
                         (signal != nullptr && ipcs::IsBusName(destination) &&
                          dbus_message_set_destination(signal.get(), destination.c_str()) != FALSE);
  if (signal == nullptr || !addressed ||
      wire::Write(signal.get(), text, payload) != wire::Written::Done) {
    ESG_LOGE("Out Of Memory!\n\n");
    return false;
  }
  if (m_pConnection == nullptr) {
    ESG_LOGE("m_pConnection is NULL\n");
    return true;
  }
  if (dbus_connection_get_outgoing_size(m_pConnection) > kMaximumWaiting) {
    ESG_LOGE("Out Of Memory!\n\n");
    return false;
  }
  dbus_connection_send(m_pConnection, signal.get(), nullptr);
  Drain(m_pConnection);
  return true;
}
