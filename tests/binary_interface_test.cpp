#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <vector>

#include "ESGEMSProxy.h"
#include "ESGService_Proxy.h"
#include "IPCS/ECIPCClient.h"
#include "IPCS/ECIPCConnection.h"
#include "IPCS/ECNativeConnection.h"
#include "IPCS/ESGMessageBuffer.h"
#include "IPCS/IESGCallListener.h"

namespace {

struct Place {
  std::size_t offset;
  std::size_t size;
  std::size_t alignment;
};

/// Whether each field follows the one before it, and nothing but padding the last.
constexpr bool Follow(std::size_t start, Place whole, std::initializer_list<Place> fields) {
  const auto aligned = [](std::size_t end, std::size_t to) { return (end + to - 1) / to * to; };
  for (const Place& field : fields) {
    if (field.offset != aligned(start, field.alignment)) {
      return false;
    }
    start = field.offset + field.size;
  }
  return whole.size == aligned(start, whole.alignment);
}

constexpr std::size_t kPointer = sizeof(void*);

}  // namespace

// The classes have virtual functions; the compilers lay them out as the ABI says.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
#define F(field) \
  Place { offsetof(C, field), sizeof(C::field), alignof(decltype(C::field)) }
#define FIELDS(Class, start, ...)                                                    \
  struct Of##Class {                                                                 \
    using C = Class;                                                                 \
    static_assert(Follow(start, {0, sizeof(C), alignof(C)}, {__VA_ARGS__}), #Class); \
  }

using namespace ATSC3ESGExtension;

/// Compiles only while the fields lie where programs built against the library expect them. The
/// compiler does not check access in this file.
struct BinaryInterface {
  FIELDS(ESGMessageBuffer, 0, F(m_bufferData), F(m_readPosition), F(m_reserved));
  FIELDS(ECIPCConnection, kPointer, F(m_eventCallback), F(m_dataCallback), F(m_pConnection),
         F(m_pConnection_gmainloop), F(m_connected), F(m_connectionId));
  FIELDS(ECIPCManager, kPointer, F(m_pConnection), F(m_connectionId));
  FIELDS(ECNativeConnection, 0, F(m_pConnection), F(m_started), F(m_listener), F(m_name));
  FIELDS(ESGService_Proxy, kPointer, F(m_pConnection));
  FIELDS(ESGEventData, kPointer, F(m_param1), F(m_param2), F(m_param3));
  FIELDS(ESGEMSProxy, kPointer, F(m_eventList));
  FIELDS(FCESGProgramInfo, kPointer, F(m_startTime), F(m_duration), F(m_eventId), F(m_title),
         F(m_synopsis), F(m_genre), F(m_globalServiceId), F(m_privateExt));
  FIELDS(CESGIcon, kPointer, F(uri), F(mimeType), F(width), F(height), F(dataSize));
  FIELDS(CESGDescription, kPointer, F(text), F(lang));
  FIELDS(CESGPreview, kPointer, F(usage), F(icons), F(contents), F(descriptions));
  FIELDS(CESGPrivateExt, kPointer, F(contentIcons), F(previews));
  FIELDS(Link, kPointer, F(uri), F(uriType), F(description));
  FIELDS(Icon, kPointer, F(uri), F(MIMEType), F(size), F(link));
  FIELDS(PreviewDescription, kPointer, F(previewDesc), F(lang), F(link));
  FIELDS(PreviewData, kPointer, F(preview_description), F(icon));
  FIELDS(PrivateExt, kPointer, F(content_icon), F(preview_data));
};
static_assert(sizeof(ECIPCClient) == sizeof(ECIPCManager), "ECIPCClient adds no fields");

namespace {

/// The places of virtual operations in their class's table: a pointer to one starts with the offset
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
