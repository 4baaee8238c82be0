#include "IPCS/EIIPCConnection.h"

#include "IPCS/ECIPCConnection.h"

EIIPCConnection::~EIIPCConnection() = default;

EIIPCConnection* EIIPCConnection::GetInstance() {
  static ECIPCConnection instance;
  return &instance;
}
