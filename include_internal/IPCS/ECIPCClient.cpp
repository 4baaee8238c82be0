#include "IPCS/ECIPCClient.h"

ECIPCClient* ECIPCClient::GetInstance() {
  static ECIPCClient instance;
  return &instance;
}

bool ECIPCClient::Send(int number, ESGMessageBuffer& payload) {
  EIIPCConnection* connection = EIIPCConnection::GetInstance();
  if (connection == nullptr) {
    return false;
  }
  return m_Send(connection->GetConnectionId(), Event, number, payload);
}
