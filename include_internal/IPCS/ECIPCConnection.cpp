#include "IPCS/ECIPCConnection.h"

#include <cstdio>
#include <cstdlib>

#include "Assertion.h"
#include "IPCS/BusRequest.h"
#include "IPCS/ESGMessageBuffer.h"
#include "IPCS/MainLoop.h"
#include "IPCS/SharedReader.h"
#include "IPCS/Wire.h"
#include "Log.h"

namespace {

constexpr char kSource[] = "include_internal/IPCS/ECIPCConnection";
constexpr std::size_t kMatchRuleSize = 256;

/// The last call's header: libdbus copies one sooner than it checks and builds one.
struct Pattern {
  std::mutex mutex;
  std::string destination;
  ipcs::MessagePtr message;
};

/// A call to a service, whose bus name is the interface as well; null when it is not fit to be
/// both. Whatever is an interface name is fit for a bus name too.
ipcs::MessagePtr NewCall(const std::string& destination) {
  static Pattern& pattern = *new Pattern;  // never destroyed: static objects may call at their end
  const std::lock_guard<std::mutex> lock(pattern.mutex);
  if (pattern.message == nullptr || destination != pattern.destination) {
    const char* name = destination.c_str();
    if (destination.find('\0') != std::string::npos ||
        dbus_validate_interface(name, nullptr) == FALSE) {
      return nullptr;
    }
    pattern.destination = destination;
    pattern.message.reset(
        dbus_message_new_method_call(name, wire::kCallPath, name, wire::kCallMember));
  }
  return ipcs::MessagePtr(pattern.message != nullptr ? dbus_message_copy(pattern.message.get())
                                                     : nullptr);
}

}  // namespace

std::mutex ECIPCConnection::m_instanceMutex;

ECIPCConnection::ECIPCConnection() {
  dbus_threads_init_default();
  ipcs::ConnectWithRetries([this] { return ECIPCConnection::m_Connect(); });
  ESG_ASSERT(m_pConnection != nullptr, "m_pConnection", kSource);
}

ECIPCConnection::~ECIPCConnection() {
  m_connected = false;
  m_eventCallback = nullptr;
  m_dataCallback = nullptr;
  m_ReleaseAllConnections();
}

bool ECIPCConnection::Connect() { return false; }

bool ECIPCConnection::m_Connect() {
  ESG_LOGI("Called\n");
  ipcs::Error error;
  m_pConnection = ipcs::SharedReader::OpenSystemBus(error);
  if (m_pConnection != nullptr) {
    m_pConnection_gmainloop = ipcs::OpenSystemBus(error);
  }
  if (m_pConnection_gmainloop == nullptr) {
    ESG_LOGE("Failed to connect to the D-BUS daemon: %s\n", error.Text());
    m_ReleaseAllConnections();
    return false;
  }
  m_connectionId = dbus_bus_get_unique_name(m_pConnection_gmainloop);
  m_connected = true;
  dbus_connection_add_filter(m_pConnection_gmainloop, &m_MessageHandlerHelper, this, nullptr);
  return true;
}

void ECIPCConnection::m_ReleaseAllConnections() {
  if (m_pConnection != nullptr) {
    // Calls in progress hold references of their own.
    ipcs::SharedReader::Of(m_pConnection).Close();
    ipcs::ConnectionPtr(m_pConnection).reset();
    m_pConnection = nullptr;
  }
  if (m_pConnection_gmainloop != nullptr) {
    // A process that ends does not wait for a main loop that is stuck; its end closes the
    // connection.
    constexpr std::chrono::seconds kLimit(1);
    DBusConnection* connection = m_pConnection_gmainloop;
    ipcs::RunInMainLoop(connection, kLimit, [connection] { ipcs::CloseAndRelease(connection); });
    m_pConnection_gmainloop = nullptr;
  }
}

int ECIPCConnection::Call(const std::string& destination, const char* method, ESGMessageBuffer& in,
                          ESGMessageBuffer& out) {
  const ipcs::MessagePtr message = NewCall(destination);
  if (message == nullptr) {
    ESG_LOGE("IPCS: Error at message creation\n");
    return -1;
  }
  if (wire::Write(message.get(), method, in) != wire::Written::Done) {
    ESG_LOGE("IPCS: Out of memory\n\n");
    return -1;
  }
  if (m_pConnection == nullptr) {
    ESG_LOGE("m_pConnection is NULL\n");
    return -1;
  }
  const ipcs::ConnectionPtr connection(dbus_connection_ref(m_pConnection));
  ipcs::SharedReader& reader = ipcs::SharedReader::Of(connection.get());
  ipcs::SharedReader::Caller caller;
  if (!reader.Send(message.get(), caller)) {
    ESG_LOGE("dbus_connection_send_with_reply return FALSE\n");
    return -1;
  }
  if (caller.pending == nullptr) {
    ESG_LOGE("pending == NULL \n");
    return -1;
  }
  const ipcs::MessagePtr reply = reader.Wait(message.get(), caller);
  if (reply == nullptr) {
    ESG_LOGE("reply==NULL.\n");
    return -1;
  }
  if (dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_ERROR) {
    ipcs::Error error;
    const char* text = nullptr;
    if (dbus_message_get_args(reply.get(), error.Out(), DBUS_TYPE_STRING, &text,
                              DBUS_TYPE_INVALID) != FALSE) {
      ESG_LOGE("[%s:%s] Error answer received [Error name: %s]: %s\n", destination.c_str(), method,
               dbus_message_get_error_name(reply.get()), text);
    } else {
      ESG_LOGE("[%s:%s] Problem with reading error answer: %s\n", destination.c_str(), method,
               error.Text());
    }
    return -1;
  }
  wire::Number result = -1;
  switch (wire::ReadBody(reply.get(), result, out)) {
    case wire::Read::Done:
      return result;
    case wire::Read::Empty:
      ESG_LOGE("IPCS: Message has no arguments!\n");
      return -1;
    case wire::Read::Wrong:
      ESG_LOGE("IPCS: Message has wrong arguments: %s\n", dbus_message_get_signature(reply.get()));
      return -1;
  }
  return -1;
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): part of the interface
const char* ECIPCConnection::m_ConvertMsgTypeToString(eECIPCMessageType type) {
  return wire::MemberName(type);
}

void ECIPCConnection::m_CreateMatchRule(eECIPCMessageType type, int event, char* out) {
  std::snprintf(out, kMatchRuleSize,
                "path='%s', type='signal', interface='%s', member='%s', arg0='%d'",
                wire::kSignalPath, wire::kSignalInterface, m_ConvertMsgTypeToString(type), event);
}

void ECIPCConnection::m_ChangeMatchRule(const char* change, int event, DBusError* error) {
  ESG_ASSERT(m_pConnection_gmainloop != nullptr, "m_pConnection_gmainloop", kSource);
  char rule[kMatchRuleSize];
  m_CreateMatchRule(Event, event, rule);
  const char* text = rule;
  ipcs::AskBus(m_pConnection_gmainloop, ipcs::NewBusRequest(change, DBUS_TYPE_STRING, &text),
               error);
}

bool ECIPCConnection::AddMatchRule(int event) {
  ipcs::Error error;
  m_ChangeMatchRule("AddMatch", event, error.Out());
  if (error.IsSet()) {
    ESG_LOGE("Error while adding match rule: %s\n\n", error.Text());
  }
  return !error.IsSet();
}

bool ECIPCConnection::RemoveMatchRule(int event) {
  ipcs::Error error;
  m_ChangeMatchRule("RemoveMatch", event, error.Out());
  if (error.IsSet()) {
    ESG_LOGE("Error while adding match rule: %s\n\n", error.Text());
  }
  return !error.IsSet();
}

void ECIPCConnection::SetEventCallbackFunction(EIIPCCallback callback) {
  ESG_LOGI("Called\n");
  const std::lock_guard<std::mutex> lock(m_instanceMutex);
  m_eventCallback = callback;
}

void ECIPCConnection::UnSetEventCallbackFunction() {
  ESG_LOGI("Called\n");
  const std::lock_guard<std::mutex> lock(m_instanceMutex);
  m_eventCallback = nullptr;
}

void ECIPCConnection::SetDataCallbackFunction(EIIPCCallback callback) {
  const std::lock_guard<std::mutex> lock(m_instanceMutex);
  m_dataCallback = callback;
}

const std::string& ECIPCConnection::GetConnectionId() { return m_connectionId; }

void ECIPCConnection::SetGMainLoop(GMainContext* context) {
  ESG_ASSERT(m_pConnection_gmainloop != nullptr, "m_pConnection_gmainloop", kSource);
  ipcs::AttachToMainLoop(m_pConnection_gmainloop, context);
}

int ECIPCConnection::m_GetMessageType(DBusMessage* message) {
  for (const eECIPCMessageType type : {Event, Data}) {
    if (dbus_message_is_signal(message, wire::kSignalInterface, m_ConvertMsgTypeToString(type)) !=
        FALSE) {
      return type;
    }
  }
  return -1;
}

DBusHandlerResult ECIPCConnection::m_MessageHandlerHelper(DBusConnection* /*connection*/,
                                                          DBusMessage* message, void* user) {
  return static_cast<ECIPCConnection*>(user)->m_MessageHandler(message);
}

DBusHandlerResult ECIPCConnection::m_MessageHandler(DBusMessage* message) noexcept {
  if (dbus_message_is_signal(message, DBUS_INTERFACE_LOCAL, "Disconnected") != FALSE) {
    m_connected = false;
    return DBUS_HANDLER_RESULT_HANDLED;
  }
  const int type = m_GetMessageType(message);
  if (type == -1) {
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  wire::Text number = nullptr;
  ESGMessageBuffer payload;
  const wire::Read read = wire::ReadBody(message, number, payload);
  if (read == wire::Read::Empty) {
    ESG_LOGE("Message has no arguments!\n");
    ESG_ASSERT(false, "0", kSource);
  }
  if (read == wire::Read::Wrong) {
    ESG_LOGE("Message has wrong arguments: %s\n", dbus_message_get_signature(message));
    return DBUS_HANDLER_RESULT_HANDLED;
  }
  const EIIPCCallback callback = type == Event ? m_eventCallback : m_dataCallback;
  if (callback != nullptr) {
    constexpr int kDecimal = 10;
    callback(static_cast<int>(std::strtol(number, nullptr, kDecimal)), payload);
  }
  return DBUS_HANDLER_RESULT_HANDLED;
}
