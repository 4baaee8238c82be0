// Compiles only while the fields of every class lie where programs built against the library, and
// the other end of an inlined access, expect them. The order of virtual operations is in the tests.

#include <cstddef>
#include <type_traits>

#include "ESGEMSProxy.h"
#include "ESGService_Proxy.h"
#include "FCESGProgramInfo.h"
#include "IPCS/ECIPCClient.h"
#include "IPCS/ECIPCConnection.h"
#include "IPCS/ECNativeConnection.h"
#include "IPCS/ESGMessageBuffer.h"

// The classes have virtual functions; every compiler this is built with lays them out as the ABI
// says.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

namespace {

/// The offset at which a field of type `Field` comes to lie behind `end` bytes.
template <class Field>
constexpr std::size_t Behind(std::size_t end) {
  return (end + alignof(Field) - 1) / alignof(Field) * alignof(Field);
}

constexpr std::size_t kPointer = sizeof(void*);

}  // namespace

/// The end of a field, which is where the next one must follow.
#define END(Class, field) (offsetof(Class, field) + sizeof(Class::field))
#define FIRST(Class, field, start)                                                      \
  static_assert(offsetof(Class, field) == Behind<decltype(Class::field)>(start), #Class \
                ":"                                                                     \
                ":" #field)
#define NEXT(Class, before, field) FIRST(Class, field, END(Class, before))
/// Nothing but padding follows the last field.
#define LAST(Class, field)                                                                         \
  static_assert(                                                                                   \
      sizeof(Class) == (END(Class, field) + alignof(Class) - 1) / alignof(Class) * alignof(Class), \
      #Class)

struct BinaryInterface {
  FIRST(ESGMessageBuffer, m_bufferData, 0);
  NEXT(ESGMessageBuffer, m_bufferData, m_readPosition);
  NEXT(ESGMessageBuffer, m_readPosition, m_reserved);
  LAST(ESGMessageBuffer, m_reserved);

  FIRST(ECIPCConnection, m_eventCallback, kPointer);
  NEXT(ECIPCConnection, m_eventCallback, m_dataCallback);
  NEXT(ECIPCConnection, m_dataCallback, m_pConnection);
  NEXT(ECIPCConnection, m_pConnection, m_pConnection_gmainloop);
  NEXT(ECIPCConnection, m_pConnection_gmainloop, m_connected);
  NEXT(ECIPCConnection, m_connected, m_connectionId);
  LAST(ECIPCConnection, m_connectionId);

  FIRST(ECIPCManager, m_pConnection, kPointer);
  NEXT(ECIPCManager, m_pConnection, m_connectionId);
  LAST(ECIPCManager, m_connectionId);
  static_assert(sizeof(ECIPCClient) == sizeof(ECIPCManager), "ECIPCClient adds no fields");

  FIRST(ECNativeConnection, m_pConnection, 0);
  NEXT(ECNativeConnection, m_pConnection, m_started);
  NEXT(ECNativeConnection, m_started, m_listener);
  NEXT(ECNativeConnection, m_listener, m_name);
  LAST(ECNativeConnection, m_name);

  FIRST(ESGService_Proxy, m_pConnection, kPointer);
  LAST(ESGService_Proxy, m_pConnection);

  FIRST(ESGEventData, m_param1, kPointer);
  NEXT(ESGEventData, m_param1, m_param2);
  NEXT(ESGEventData, m_param2, m_param3);
  LAST(ESGEventData, m_param3);
  FIRST(ESGEMSProxy, m_eventList, kPointer);
  LAST(ESGEMSProxy, m_eventList);

  FIRST(FCESGProgramInfo, m_startTime, kPointer);
  NEXT(FCESGProgramInfo, m_startTime, m_duration);
  NEXT(FCESGProgramInfo, m_duration, m_eventId);
  NEXT(FCESGProgramInfo, m_eventId, m_title);
  NEXT(FCESGProgramInfo, m_title, m_synopsis);
  NEXT(FCESGProgramInfo, m_synopsis, m_genre);
  NEXT(FCESGProgramInfo, m_genre, m_globalServiceId);
  NEXT(FCESGProgramInfo, m_globalServiceId, m_privateExt);
  LAST(FCESGProgramInfo, m_privateExt);
};

namespace ATSC3ESGExtension {

FIRST(CESGIcon, uri, kPointer);
NEXT(CESGIcon, uri, mimeType);
NEXT(CESGIcon, mimeType, width);
NEXT(CESGIcon, width, height);
NEXT(CESGIcon, height, dataSize);
LAST(CESGIcon, dataSize);

FIRST(CESGDescription, text, kPointer);
NEXT(CESGDescription, text, lang);
LAST(CESGDescription, lang);

FIRST(CESGPreview, usage, kPointer);
NEXT(CESGPreview, usage, icons);
NEXT(CESGPreview, icons, contents);
NEXT(CESGPreview, contents, descriptions);
LAST(CESGPreview, descriptions);

FIRST(CESGPrivateExt, contentIcons, kPointer);
NEXT(CESGPrivateExt, contentIcons, previews);
LAST(CESGPrivateExt, previews);

FIRST(Link, uri, kPointer);
NEXT(Link, uri, uriType);
NEXT(Link, uriType, description);
LAST(Link, description);

FIRST(Icon, uri, kPointer);
NEXT(Icon, uri, MIMEType);
NEXT(Icon, MIMEType, size);
NEXT(Icon, size, link);
LAST(Icon, link);

FIRST(PreviewDescription, previewDesc, kPointer);
NEXT(PreviewDescription, previewDesc, lang);
NEXT(PreviewDescription, lang, link);
LAST(PreviewDescription, link);

FIRST(PreviewData, preview_description, kPointer);
NEXT(PreviewData, preview_description, icon);
LAST(PreviewData, icon);

FIRST(PrivateExt, content_icon, kPointer);
NEXT(PrivateExt, content_icon, preview_data);
LAST(PrivateExt, preview_data);

}  // namespace ATSC3ESGExtension
