#include "IPCS/ECIPCManager.h"

#include <chrono>
#include <thread>

#include "Assertion.h"
#include "IPCS/internal/Channel.h"
#include "IPCS/internal/Wire.h"
#include "Log.h"

namespace internal = esg::internal;
using internal::Channel;
using internal::ChannelPtr;

namespace {

/// The bytes that may wait for the bus; further signals are refused.
constexpr long kMaxQueued = 64L * 1024 * 1024;

}  // namespace

ECIPCManager::ECIPCManager() {
  for (int retries = 60; !m_Connect() && retries > 0; --retries) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  if (m_pConnection == nullptr) {
    ESG_REPORT("m_pConnection", "include_internal/IPCS/ECIPCManager");
    return;
  }
  dbus_threads_init_default();
}

ECIPCManager::~ECIPCManager() {
  DBusConnection* field = m_pConnection;  // keeps m_pConnection: closed, not released
  const ChannelPtr channel = Channel::Exchange(field, nullptr);
  if (channel != nullptr && !channel->IsForeign()) {
    dbus_connection_ref(channel->Connection());
    channel->Close();
  }
}

void ECIPCManager::m_End() {
  if (const ChannelPtr channel = Channel::Of(m_pConnection)) {
    channel->Close();
  }
}

bool ECIPCManager::m_Connect() {
  internal::Error error;
  const ChannelPtr channel = Channel::Open(Channel::Mail::Drop, error);
  if (channel == nullptr) {
    ESG_LOGE("Failed to connect to the D-BUS daemon: %s\n", error.message);
    return false;
  }
  m_connectionId = dbus_bus_get_unique_name(channel->Connection());
  Channel::Exchange(m_pConnection, channel);
  return true;
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): part of the interface
const char* ECIPCManager::m_ConvertMsgTypeToString(eECIPCMessageType type) {
  return internal::MemberName(type);
}

bool ECIPCManager::m_Send(const std::string& destination, eECIPCMessageType type, int number,
                          ESGMessageBuffer& payload) {
  const ChannelPtr channel = Channel::Of(m_pConnection);
  if (channel != nullptr && channel->IsForeign()) {
    ESG_LOGE("%s\n", internal::kForeign);
    return false;
  }
  const internal::MessagePtr signal(dbus_message_new_signal(
      internal::kSignalPath, internal::kSignalInterface, m_ConvertMsgTypeToString(type)));
  const bool isAddressed =
      destination.empty() ||
      (signal != nullptr && internal::IsBusName(destination) &&
       dbus_message_set_destination(signal.get(), destination.c_str()) != FALSE);
  if (signal == nullptr || !isAddressed ||
      internal::WriteSignal(signal.get(), number, payload) != internal::Written::Done) {
    ESG_LOGE("Out Of Memory!\n\n");
    return false;
  }
  if (channel == nullptr) {
    ESG_LOGE("m_pConnection is NULL\n");
    return true;
  }
  if (!channel->Send(signal.get(), kMaxQueued)) {
    ESG_LOGE("Out Of Memory!\n\n");
    return false;
  }
  return true;
}
