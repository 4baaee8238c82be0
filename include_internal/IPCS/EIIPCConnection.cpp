#include "IPCS/EIIPCConnection.h"

EIIPCConnection::~EIIPCConnection() = default;
