#include "IPCS/ECIPCBroadcaster.h"

#include "IPCS/ESGMessageBuffer.h"

bool ECIPCBroadcaster::Send(int number, ESGMessageBuffer& payload) {
  return m_Send("", Event, number, payload);
}

bool ECIPCBroadcaster::Send(int number) {
  ESGMessageBuffer payload;
  return Send(number, payload);
}

bool ECIPCBroadcaster::Send(int number, int first, int second, int third) {
  ESGMessageBuffer payload;
  for (const int parameter : {first, second, third}) {
    payload.PushInt(parameter);
  }
  return Send(number, payload);
}
