#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ESGEMSProxy.h"
#include "IPCS/ESGMessageBuffer.h"
#include "LogCapture.h"
#include "MockConnection.h"

namespace {

using testing::Return;

TEST(EventProxyNoBus, SubscribesOnceAndForgetsItselfWithTheLastEvent) {
  testing::StrictMock<MockConnection> connection;
  const testing::InSequence sequence;
  std::string called;
  const auto proxyWith = [&](char callback) {
    return ESGEMSProxy::GetInstance(&connection, [&called, callback](int, const ESGEventData&) {
      called += callback;
      return -1;
    });
  };
  const auto receive = [](int event) {
    ESGMessageBuffer data;
    ESGEMSProxy::OnEventReceived(event, data);
  };

  receive(1);  // nobody is there yet
  EXPECT_CALL(connection, SetGMainLoop(nullptr));
  const std::unique_ptr<IESGEMS> first(proxyWith('a'));  // nobody's once it is forgotten
  EXPECT_EQ(proxyWith('b'), first.get());

  EXPECT_CALL(connection, SetEventCallbackFunction(&ESGEMSProxy::OnEventReceived));
  EXPECT_CALL(connection, AddMatchRule(5)).WillOnce(Return(true)).WillOnce(Return(true));
  EXPECT_CALL(connection, AddMatchRule(6)).WillOnce(Return(false));
  EXPECT_EQ(first->SubscribeSignal(5), 0);
  EXPECT_EQ(first->SubscribeSignal(5), 0);
  EXPECT_EQ(first->SubscribeSignal(6), -1);
  receive(5);

  EXPECT_CALL(connection, RemoveMatchRule(5)).WillOnce(Return(true));
  EXPECT_EQ(first->UnsubscribeSignal(5), 0);
  EXPECT_EQ(proxyWith('b'), first.get());
  EXPECT_CALL(connection, UnSetEventCallbackFunction());
  EXPECT_CALL(connection, RemoveMatchRule(6)).WillOnce(Return(false));
  EXPECT_EQ(first->UnsubscribeSignal(6), -1);
  receive(5);

  EXPECT_CALL(connection, SetGMainLoop(nullptr));
  const std::unique_ptr<IESGEMS> second(proxyWith('b'));
  EXPECT_NE(second, first);
  receive(5);
  EXPECT_CALL(connection, UnSetEventCallbackFunction());
  EXPECT_CALL(connection, RemoveMatchRule(7)).WillOnce(Return(true));
  EXPECT_EQ(second->UnsubscribeSignal(7), 0);
  EXPECT_EQ(called, "aab");

  std::vector<std::string> messages;
  for (const log_capture::Line& line : log_capture::Lines()) {
    messages.push_back(std::to_string(line.priority) + " " + line.message);
  }
  EXPECT_EQ(messages,
            (std::vector<std::string>{
                "4 event = 1\n", "4 Subscribe event : 5\n", "4 Subscribe event : 5\n",
                "4 Subscribe event : 6\n", "4 event = 5\n", "4 UnSubscribe event : 5\n",
                "6 Subscribe and UnSubcribe number is different. m_eventList.size :1\n",
                "4 UnSubscribe event : 6\n", "4 Destroy Call back Function\n", "4 event = 5\n",
                "4 event = 5\n", "4 UnSubscribe event : 7\n", "4 Destroy Call back Function\n"}));
}

TEST(EventProxyNoBusDeathTest, EndsTheProcessOnAPayloadThatIsTooLong) {
  ESGMessageBuffer data;
  data.Resize(16);
  ESGEMSProxy::OnEventReceived(5, data);
  data.Resize(1);
  EXPECT_DEATH(ESGEMSProxy::OnEventReceived(5, data),
               "Assertion `sizeof\\(params\\) >= data.GetFullBufferSize\\(\\)' failed");
}

}  // namespace
