#include "IPCS/ECNativeConnection.h"

#include <utility>

#include "Assertion.h"
#include "IPCS/BusRequest.h"
#include "IPCS/DBusHandles.h"
#include "IPCS/ESGMessageBuffer.h"
#include "IPCS/IESGCallListener.h"
#include "IPCS/MainLoop.h"
#include "IPCS/Wire.h"
#include "Log.h"

namespace {

/// A call that is being served is waited for.
constexpr std::chrono::hours kNoLimit(24);

/// What tools such as busctl show of the object that is called.
std::string IntrospectionXml(const std::string& interface) {
  return DBUS_INTROSPECT_1_0_XML_DOCTYPE_DECL_NODE R"(<node>
 <interface name=")" +
         interface + R"(">
  <method name="MethodCall">
   <arg name="method" type="s" direction="in"/>
   <arg name="length" type="i" direction="in"/>
   <arg name="payload" type="ay" direction="in"/>
   <arg name="result" type="i" direction="out"/>
   <arg name="length" type="i" direction="out"/>
   <arg name="payload" type="ay" direction="out"/>
  </method>
 </interface>
 <interface name="org.freedesktop.DBus.Introspectable">
  <method name="Introspect">
   <arg name="data" type="s" direction="out"/>
  </method>
 </interface>
</node>
)";
}

/// Serves the calls to the object that the filter has passed on; `user` is the interface's name.
DBusHandlerResult OnObjectMessage(DBusConnection* connection, DBusMessage* message, void* user) {
  if (dbus_message_is_method_call(message, DBUS_INTERFACE_INTROSPECTABLE, "Introspect") == FALSE) {
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  const std::string xml = IntrospectionXml(*static_cast<const std::string*>(user));
  const char* text = xml.c_str();
  const ipcs::MessagePtr reply(dbus_message_new_method_return(message));
  if (reply == nullptr ||
      dbus_message_append_args(reply.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) == FALSE ||
      dbus_connection_send(connection, reply.get(), nullptr) == FALSE) {
    return DBUS_HANDLER_RESULT_NEED_MEMORY;
  }
  return DBUS_HANDLER_RESULT_HANDLED;
}

}  // namespace

ECNativeConnection::ECNativeConnection() = default;

ECNativeConnection::~ECNativeConnection() {
  const bool started = std::exchange(m_started, false);
  if (m_pConnection != nullptr) {
    // Closed, not released: the main context still refers to it, and dispatches what has arrived.
    // This object must be out of its reach.
    ipcs::RunInMainLoop(m_pConnection, kNoLimit, [this, started] {
      if (started) {
        dbus_connection_remove_filter(m_pConnection, &m_MessageHandlerHelper, this);
        dbus_connection_unregister_object_path(m_pConnection, wire::kCallPath);
      }
      dbus_connection_close(m_pConnection);
    });
  }
}

bool ECNativeConnection::Start(const std::string& name, IESGCallListener* listener) {
  constexpr int kAttempts = 60;
  for (int attempt = 0; m_pConnection == nullptr && attempt < kAttempts; ++attempt) {
    ipcs::Error error;
    m_pConnection = ipcs::OpenSystemBus(error);
    if (m_pConnection == nullptr) {
      ESG_LOGE("Failed to connect to the D-BUS daemon: %s\n", error.Text());
      std::this_thread::sleep_for(std::chrono::seconds(1));
    }
  }
  if (m_pConnection == nullptr) {
    ESG_REPORT("m_pConnection", "include_internal/IPCS/ECNativeConnection");
    return false;
  }

  // Calls that arrive before the end of this function wait in the connection: nothing dispatches it
  // until it is attached.
  ipcs::Error error;
  if (ipcs::IsBusName(name, error.Out())) {
    const char* text = name.c_str();
    const dbus_uint32_t flags = DBUS_NAME_FLAG_REPLACE_EXISTING;
    const auto request =
        ipcs::NewBusRequest("RequestName", DBUS_TYPE_STRING, &text, DBUS_TYPE_UINT32, &flags);
    ipcs::AskBus(m_pConnection, request, error.Out());
  }
  if (error.IsSet()) {
    ESG_LOGE("Naming Error (%s)\n\n", error.Text());
    return false;
  }
  ipcs::RunInMainLoop(m_pConnection, kNoLimit, [&] {
    m_name = name;
    m_listener = listener;
  });
  if (!m_started) {
    m_started = true;
    dbus_connection_add_filter(m_pConnection, &m_MessageHandlerHelper, this, nullptr);
    DBusObjectPathVTable object = {};
    object.message_function = &OnObjectMessage;
    dbus_connection_try_register_object_path(m_pConnection, wire::kCallPath, &object, &m_name,
                                             nullptr);
    ipcs::AttachToMainLoop(m_pConnection, nullptr);
  }
  return true;
}

DBusHandlerResult ECNativeConnection::m_MessageHandlerHelper(DBusConnection* /*connection*/,
                                                             DBusMessage* message, void* user) {
  return static_cast<ECNativeConnection*>(user)->m_MessageHandler(message);
}

DBusHandlerResult ECNativeConnection::m_MessageHandler(DBusMessage* message) noexcept {
  if (dbus_message_is_method_call(message, m_name.c_str(), wire::kCallMember) == FALSE) {
    ESG_LOGE("It is not method call !\n");
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  wire::Text method = nullptr;
  ESGMessageBuffer in;
  ESGMessageBuffer out;
  switch (wire::ReadBody(message, method, in)) {
    case wire::Read::Done:
      break;
    case wire::Read::Empty:
      ESG_LOGE("Message has no arguments!\n");
      return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    case wire::Read::Wrong:
      ESG_LOGE("Message has wrong arguments: %s\n", dbus_message_get_signature(message));
      return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  if (m_listener == nullptr) {
    ESG_LOGE("No listener\n");
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  const bool result = m_listener->OnMethodCall(method, in, out);
  if (dbus_message_get_no_reply(message) != FALSE) {
    return DBUS_HANDLER_RESULT_HANDLED;
  }

  ipcs::MessagePtr reply(dbus_message_new_method_return(message));
  const wire::Written written = reply == nullptr
                                    ? wire::Written::Failed
                                    : wire::Write(reply.get(), wire::Number{result ? 1 : 0}, out);
  if (written == wire::Written::TooLarge) {
    reply.reset(dbus_message_new_error(message, DBUS_ERROR_LIMITS_EXCEEDED,
                                       "The answer is larger than the bus takes"));
  }
  if (written == wire::Written::Failed || reply == nullptr ||
      dbus_connection_send(m_pConnection, reply.get(), nullptr) == FALSE) {
    ESG_LOGE("Out Of Memory!\n\n");
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  dbus_connection_flush(m_pConnection);
  return DBUS_HANDLER_RESULT_HANDLED;
}
