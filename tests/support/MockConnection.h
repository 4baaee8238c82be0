#ifndef TESTS_MOCK_CONNECTION_H
#define TESTS_MOCK_CONNECTION_H

#include <gmock/gmock.h>

#include <string>

#include "IPCS/EIIPCConnection.h"

/// A client connection without a bus.
class MockConnection : public EIIPCConnection {
 public:
  MOCK_METHOD(bool, Connect, (), (override));
  MOCK_METHOD(bool, AddMatchRule, (int), (override));
  MOCK_METHOD(bool, RemoveMatchRule, (int), (override));
  MOCK_METHOD(int, Call, (const std::string&, const char*, ESGMessageBuffer&, ESGMessageBuffer&),
              (override));
  MOCK_METHOD(void, SetEventCallbackFunction, (EIIPCCallback), (override));
  MOCK_METHOD(void, UnSetEventCallbackFunction, (), (override));
  MOCK_METHOD(void, SetDataCallbackFunction, (EIIPCCallback), (override));
  MOCK_METHOD(const std::string&, GetConnectionId, (), (override));
  MOCK_METHOD(void, SetGMainLoop, (GMainContext*), (override));
  MOCK_METHOD(bool, m_Connect, (), (override));
};

#endif
