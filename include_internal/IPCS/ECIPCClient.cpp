#include "IPCS/ECIPCClient.h"

#include "Log.h"

ECIPCClient* ECIPCClient::GetInstance() {
  // Never deleted: static objects and other threads may use it after the end.
  static ECIPCClient& instance = *new ECIPCClient;
  struct End {
    ~End() { instance.m_End(); }
  };
  static const End end;
  return &instance;
}

bool ECIPCClient::Send(int number, ESGMessageBuffer& payload) {
  EIIPCConnection* connection = EIIPCConnection::GetInstance();
  if (connection == nullptr) {
    return false;
  }
  const std::string self = connection->GetConnectionId();
  if (self.empty()) {
    // A signal without a destination would be a broadcast.
    ESG_LOGE("The client connection is closed\n");
    return false;
  }
  return m_Send(self, Event, number, payload);
}
