#include "IPCS/ECNativeConnection.h"

#include <chrono>
#include <limits>
#include <thread>

#include "Assertion.h"
#include "IPCS/ESGMessageBuffer.h"
#include "IPCS/IESGCallListener.h"
#include "IPCS/internal/Channel.h"
#include "IPCS/internal/Wire.h"
#include "Log.h"
#include "MethodCallXml.h"

namespace internal = esg::internal;
using internal::Channel;
using internal::ChannelPtr;
using internal::MessagePtr;

namespace {

/// How long the destructor waits for a call that is being served.
constexpr std::chrono::milliseconds kPatience(500);
constexpr long kAnyQueue = std::numeric_limits<long>::max();

MessagePtr NewNameRequest(const char* name) {
  const dbus_uint32_t flags = DBUS_NAME_FLAG_REPLACE_EXISTING;
  MessagePtr request(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                  DBUS_INTERFACE_DBUS, "RequestName"));
  if (request != nullptr &&
      dbus_message_append_args(request.get(), DBUS_TYPE_STRING, &name, DBUS_TYPE_UINT32, &flags,
                               DBUS_TYPE_INVALID) == FALSE) {
    request.reset();
  }
  return request;
}

/// The introspection that tools such as busctl show.
MessagePtr NewIntrospection(DBusMessage* call, const std::string& interface) {
  const std::string xml = std::string(DBUS_INTROSPECT_1_0_XML_DOCTYPE_DECL_NODE "<node>\n") +
                          "  <interface name=\"" + interface + "\">\n" + kMethodCallXml +
                          "  </interface>\n"
                          "  <interface name=\"" DBUS_INTERFACE_INTROSPECTABLE
                          "\">\n"
                          "    <method name=\"Introspect\">\n"
                          "      <arg name=\"data\" type=\"s\" direction=\"out\"/>\n"
                          "    </method>\n"
                          "  </interface>\n"
                          "</node>\n";
  const char* text = xml.c_str();
  MessagePtr reply(dbus_message_new_method_return(call));
  if (reply != nullptr &&
      dbus_message_append_args(reply.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) == FALSE) {
    reply.reset();
  }
  return reply;
}

}  // namespace

ECNativeConnection::ECNativeConnection() = default;

ECNativeConnection::~ECNativeConnection() {
  m_started = false;
  const ChannelPtr channel = Channel::Of(m_pConnection);
  if (channel != nullptr && !channel->IsForeign()) {
    channel->RemoveHandler(kPatience);
    channel->Close();
    dbus_connection_ref(channel->Connection());  // closed, not released
    DBusConnection* field = m_pConnection;
    Channel::Exchange(field, nullptr);
  }
}

bool ECNativeConnection::Start(const std::string& name, IESGCallListener* listener) {
  constexpr int kAttempts = 60;
  ChannelPtr channel = Channel::Of(m_pConnection);
  for (int attempt = 0; channel == nullptr && attempt < kAttempts; ++attempt) {
    internal::Error error;
    channel = Channel::Open(Channel::Mail::Keep, error);
    if (channel != nullptr) {
      Channel::Exchange(m_pConnection, channel);
    } else {
      ESG_LOGE("Failed to connect to the D-BUS daemon: %s\n", error.message);
      std::this_thread::sleep_for(std::chrono::seconds(1));
    }
  }
  if (channel == nullptr) {
    ESG_REPORT("m_pConnection", "include_internal/IPCS/ECNativeConnection");
    return false;
  }
  if (channel->IsForeign()) {
    ESG_LOGE("%s\n", internal::kForeign);
    return false;
  }

  // Calls that arrive before this function ends wait in the channel.
  internal::Error error;
  if (internal::IsBusName(name, &error)) {
    channel->CallBus(NewNameRequest(name.c_str()), &error);
  }
  if (error.IsSet()) {
    ESG_LOGE("Naming Error (%s)\n\n", error.message);
    return false;
  }
  {
    const Channel::Lock lock(*channel);
    m_name = name;
    m_started = true;
    m_listener = listener;
  }
  channel->SetHandler(&m_Serve, this);
  channel->Attach(nullptr);
  return true;
}

DBusHandlerResult ECNativeConnection::m_Serve(DBusConnection* connection, DBusMessage* message,
                                              void* user) {
  const DBusHandlerResult result = m_MessageHandlerHelper(connection, message, user);
  if (dbus_message_is_method_call(message, DBUS_INTERFACE_INTROSPECTABLE, "Introspect") == FALSE ||
      dbus_message_has_path(message, internal::kCallPath) == FALSE) {
    return result;
  }
  const auto& self = *static_cast<ECNativeConnection*>(user);
  const ChannelPtr channel = Channel::Of(self.m_pConnection);
  const MessagePtr reply = NewIntrospection(message, self.m_name);
  Channel::EnterCallback();
  return channel != nullptr && reply != nullptr && channel->Send(reply.get(), kAnyQueue)
             ? DBUS_HANDLER_RESULT_HANDLED
             : DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

DBusHandlerResult ECNativeConnection::m_MessageHandlerHelper(DBusConnection* /*connection*/,
                                                             DBusMessage* message, void* user) {
  return static_cast<ECNativeConnection*>(user)->m_MessageHandler(message);
}

DBusHandlerResult ECNativeConnection::m_MessageHandler(DBusMessage* message) noexcept {
  if (dbus_message_is_method_call(message, m_name.c_str(), internal::kCallMember) == FALSE) {
    ESG_LOGE("It is not method call !\n");
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  const char* method = nullptr;
  ESGMessageBuffer in;
  ESGMessageBuffer out;
  switch (internal::ReadCall(message, method, in)) {
    case internal::Read::Done:
      break;
    case internal::Read::Empty:
      ESG_LOGE("Message has no arguments!\n");
      return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    case internal::Read::Wrong:
      ESG_LOGE("Message has wrong arguments: %s\n", dbus_message_get_signature(message));
      return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  const ChannelPtr channel = Channel::Of(m_pConnection);
  if (m_listener == nullptr || channel == nullptr) {
    ESG_LOGE("No listener\n");
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  IESGCallListener* listener = m_listener;
  Channel::EnterCallback();  // this object may be destroyed from now on
  const bool result = listener->OnMethodCall(method, in, out);
  if (dbus_message_get_no_reply(message) != FALSE) {
    return DBUS_HANDLER_RESULT_HANDLED;
  }

  MessagePtr reply(dbus_message_new_method_return(message));
  const internal::Written written = reply == nullptr
                                        ? internal::Written::Failed
                                        : internal::WriteReply(reply.get(), result ? 1 : 0, out);
  if (written == internal::Written::TooLarge) {
    reply.reset(dbus_message_new_error(message, DBUS_ERROR_LIMITS_EXCEEDED,
                                       "The answer is larger than the bus takes"));
  }
  if (written == internal::Written::Failed || reply == nullptr ||
      !channel->Send(reply.get(), kAnyQueue)) {
    ESG_LOGE("Out Of Memory!\n\n");
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  return DBUS_HANDLER_RESULT_HANDLED;
}
