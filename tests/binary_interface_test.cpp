#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "../src/ESGService_Proxy.h"
#include "IESGEMS.h"
#include "IPCS/ECIPCManager.h"
#include "IPCS/EIIPCConnection.h"
#include "IPCS/IESGCallListener.h"

namespace {

/// The places of virtual operations in their class's table: a pointer to one begins with the offset
/// in the table, plus 1.
template <class... Operations>
std::vector<std::size_t> Slots(Operations... operations) {
  std::vector<std::size_t> slots;
  const auto add = [&slots](auto operation) {
    std::uintptr_t offset = 0;
    std::memcpy(&offset, &operation, sizeof(offset));
    slots.push_back((offset - 1) / sizeof(void*));
  };
  (add(operations), ...);
  return slots;
}

template <class Service>
std::vector<std::size_t> ServiceSlots() {
  return Slots(&Service::GetPresentProgram, &Service::GetProgramList, &Service::GetProgram,
               &Service::GetProgramItem, &Service::GetScheduleFragment,
               &Service::GetServiceFragment, &Service::GetContentFragment,
               &Service::SaveContentFragment, &Service::SaveScheduleFragment,
               &Service::SaveServiceFragment);
}

/// Names the operation that only derived classes may call.
struct Derived : EIIPCConnection {
  static auto Connecting() { return &Derived::m_Connect; }
};

TEST(BinaryInterfaceNoBus, OperationsFollowTheDestructorInTheirOrder) {
  // A destructor takes two places, and only 0 and 1 are left for it.
  using Places = std::vector<std::size_t>;
  EXPECT_EQ(ServiceSlots<IESGService>(), (Places{2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
  EXPECT_EQ(ServiceSlots<ESGService_Proxy>(), ServiceSlots<IESGService>());
  using Connection = EIIPCConnection;
  EXPECT_EQ(Slots(&Connection::Connect, &Connection::AddMatchRule, &Connection::RemoveMatchRule,
                  &Connection::Call, &Connection::SetEventCallbackFunction,
                  &Connection::UnSetEventCallbackFunction, &Connection::SetDataCallbackFunction,
                  &Connection::GetConnectionId, &Connection::SetGMainLoop, Derived::Connecting()),
            (Places{2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
  EXPECT_EQ(Slots(&IESGEMS::SubscribeSignal, &IESGEMS::UnsubscribeSignal), (Places{2, 3}));
  EXPECT_EQ(Slots(&IESGCallListener::OnMethodCall), (Places{2}));
  EXPECT_EQ(Slots(&ECIPCManager::Send), (Places{2}));
}

}  // namespace
