#include "IPCS/ECIPCConnection.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "Assertion.h"
#include "IPCS/ESGMessageBuffer.h"
#include "IPCS/internal/Calls.h"
#include "IPCS/internal/Channel.h"
#include "IPCS/internal/Requests.h"
#include "IPCS/internal/Wire.h"
#include "Log.h"

namespace internal = esg::internal;
using internal::Channel;
using internal::ChannelPtr;
using internal::MessagePtr;

namespace {

constexpr char kSource[] = "include_internal/IPCS/ECIPCConnection";
constexpr std::size_t kMatchRuleSize = 256;

/// Creates a call to a service, whose bus name is also the interface. Returns null if the name is
/// not valid as both. Every interface name is also valid as a bus name.
MessagePtr NewCall(const std::string& destination) {
  const char* name = destination.c_str();
  if (destination.find('\0') != std::string::npos ||
      dbus_validate_interface(name, nullptr) == FALSE) {
    return nullptr;
  }
  return MessagePtr(
      dbus_message_new_method_call(name, internal::kCallPath, name, internal::kCallMember));
}

using internal::CallFailure;
using Kind = CallFailure::Kind;

template <std::size_t kSize>
void CopyText(char (&to)[kSize], const char* from) {
  const std::size_t length = std::strlen(from);
  std::size_t kept = std::min(length, kSize - 1);
  while (kept < length && kept > 0 && (from[kept] & 0xC0) == 0x80) {  // inside a character
    --kept;
  }
  std::memcpy(to, from, kept);
  to[kept] = '\0';
}

/// Returns the result of Call() on failure.
int Fail(CallFailure& failure, Kind kind, const char* name = "", const char* text = "") {
  failure.kind = kind;
  CopyText(failure.name, name);
  CopyText(failure.text, text);
  return -1;
}

// The two halves of a call, blocking or not. Their name is the function name in the log lines.

MessagePtr Call(const std::string& destination, const char* method, const ESGMessageBuffer& in,
                CallFailure& failure) {
  MessagePtr message = NewCall(destination);
  if (message == nullptr) {
    ESG_LOGE("IPCS: Error at message creation\n");
    Fail(failure, Kind::NotSent);
    return nullptr;
  }
  const internal::Written written = internal::WriteCall(message.get(), method, in);
  if (written != internal::Written::Done) {
    ESG_LOGE("IPCS: Out of memory\n\n");
    Fail(failure, written == internal::Written::TooLarge ? Kind::TooLarge : Kind::NotSent);
    return nullptr;
  }
  return message;
}

int Call(const std::string& destination, const char* method, Channel::Outcome outcome,
         DBusMessage* reply, std::string_view& payload, CallFailure& failure) {
  if (outcome == Channel::Outcome::NotSent) {
    ESG_LOGE("dbus_connection_send_with_reply return FALSE\n");
    return Fail(failure, Kind::NotSent);
  }
  if (outcome == Channel::Outcome::NotConnected) {
    ESG_LOGE("pending == NULL \n");
    return Fail(failure, Kind::NoBus);
  }
  if (reply == nullptr) {
    ESG_LOGE("reply==NULL.\n");
    return Fail(failure, Kind::NotSent);
  }
  if (dbus_message_get_type(reply) == DBUS_MESSAGE_TYPE_ERROR) {
    internal::Error error;
    const char* text = nullptr;
    const char* name = dbus_message_get_error_name(reply);
    if (dbus_message_get_args(reply, &error, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) != FALSE) {
      ESG_LOGE("[%s:%s] Error answer received [Error name: %s]: %s\n", destination.c_str(), method,
               name, text);
    } else {
      ESG_LOGE("[%s:%s] Problem with reading error answer: %s\n", destination.c_str(), method,
               error.message);
    }
    failure.isFromBus = dbus_message_has_sender(reply, DBUS_SERVICE_DBUS) != FALSE;
    return Fail(failure, Kind::Error, name, text != nullptr ? text : "");
  }
  int result = -1;
  switch (internal::ReadReply(reply, result, payload)) {
    case internal::Read::Done:
      return result != -1 ? result : Fail(failure, Kind::Result);
    case internal::Read::Empty:
      ESG_LOGE("IPCS: Message has no arguments!\n");
      break;
    case internal::Read::Wrong:
      ESG_LOGE("IPCS: Message has wrong arguments: %s\n", dbus_message_get_signature(reply));
      break;
  }
  return Fail(failure, Kind::Unreadable);
}

/// `change` is the method of the bus that changes the rule.
void ChangeMatchRule(ECIPCConnection& connection, DBusConnection* const& field, const char* change,
                     int event, DBusError* error) {
  const ChannelPtr channel = Channel::Of(field);
  ESG_ASSERT(channel != nullptr, "m_pConnection_gmainloop", kSource);
  if (channel->IsForeign()) {
    dbus_set_error_const(error, DBUS_ERROR_DISCONNECTED, internal::kForeign);
    return;
  }
  char text[kMatchRuleSize];
  connection.m_CreateMatchRule(Event, event, text);
  const char* const rule = text;
  MessagePtr request(
      dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, change));
  if (request != nullptr && dbus_message_append_args(request.get(), DBUS_TYPE_STRING, &rule,
                                                     DBUS_TYPE_INVALID) == FALSE) {
    request.reset();
  }
  channel->CallBus(request, error);
}

}  // namespace

std::mutex ECIPCConnection::m_instanceMutex;

EIIPCConnection* EIIPCConnection::GetInstance() {
  // Never deleted: static objects and other threads may use it after the end.
  static ECIPCConnection& instance = *new ECIPCConnection;
  struct End {
    ~End() { instance.m_End(); }
  };
  static const End end;
  return &instance;
}

ECIPCConnection::ECIPCConnection() {
  dbus_threads_init_default();
  for (int retries = 60; !ECIPCConnection::m_Connect() && retries > 0; --retries) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  ESG_ASSERT(m_pConnection != nullptr, "m_pConnection", kSource);
}

ECIPCConnection::~ECIPCConnection() {
  m_End();
  m_ReleaseAllConnections();
}

bool ECIPCConnection::Connect() { return false; }

bool ECIPCConnection::m_Connect() {
  ESG_LOGI("Called\n");
  internal::Error error;
  const ChannelPtr calls = Channel::Open(Channel::Mail::Drop, error);
  const ChannelPtr signals = calls != nullptr ? Channel::Open(Channel::Mail::Keep, error) : nullptr;
  if (signals == nullptr) {
    ESG_LOGE("Failed to connect to the D-BUS daemon: %s\n", error.message);
    return false;
  }
  m_connectionId = dbus_bus_get_unique_name(signals->Connection());
  m_connected = true;
  signals->SetHandler(&m_MessageHandlerHelper, this);
  for (const ChannelPtr& before : {Channel::Exchange(m_pConnection, calls),
                                   Channel::Exchange(m_pConnection_gmainloop, signals)}) {
    if (before != nullptr) {
      before->Close();
    }
  }
  return true;
}

void ECIPCConnection::m_End() {
  const ChannelPtr calls = Channel::Of(m_pConnection);
  if (calls != nullptr && calls->IsForeign()) {
    return;  // another thread may have held any lock at the time of the fork
  }
  m_connected = false;
  {
    const std::lock_guard<std::mutex> lock(m_instanceMutex);
    m_eventCallback = nullptr;
    m_dataCallback = nullptr;
  }
  for (DBusConnection** field : {&m_pConnection, &m_pConnection_gmainloop}) {
    if (const ChannelPtr channel = Channel::Of(*field)) {
      channel->Close();
    }
  }
  m_connectionId.clear();
}

void ECIPCConnection::m_ReleaseAllConnections() {
  for (DBusConnection** field : {&m_pConnection, &m_pConnection_gmainloop}) {
    if (const ChannelPtr channel = Channel::Exchange(*field, nullptr)) {
      channel->Close();  // calls in progress keep the channel until they return
    }
  }
}

int ECIPCConnection::Call(const std::string& destination, const char* method, ESGMessageBuffer& in,
                          ESGMessageBuffer& out) {
  CallFailure& failure = internal::LastCallFailure();
  const ChannelPtr channel = Channel::Of(m_pConnection);
  if (channel != nullptr && channel->IsForeign()) {
    ESG_LOGE("%s\n", internal::kForeign);
    return Fail(failure, Kind::NoBus);
  }
  const MessagePtr message = ::Call(destination, method, in, failure);
  if (message == nullptr) {
    return -1;
  }
  if (channel == nullptr) {
    ESG_LOGE("m_pConnection is NULL\n");
    return Fail(failure, Kind::NoBus);
  }
  MessagePtr reply;
  const Channel::Outcome outcome = channel->Call(message.get(), reply);
  std::string_view payload;
  const int result = ::Call(destination, method, outcome, reply.get(), payload, failure);
  internal::Append(payload, out);
  return result;
}

internal::CallFailure& internal::LastCallFailure() {
  thread_local CallFailure failure;
  return failure;
}

struct esg::internal::ProcessCalls {
  static std::atomic<bool> hasAsked;
  static ChannelPtr Get() {
    return Channel::Of(
        static_cast<ECIPCConnection*>(EIIPCConnection::GetInstance())->m_pConnection);
  }
};

std::atomic<bool> internal::ProcessCalls::hasAsked{false};

std::uint64_t internal::CallLater(const std::string& destination, const char* method,
                                  const ESGMessageBuffer& in, CallDone done) {
  const ChannelPtr channel = ProcessCalls::Get();
  if (channel->IsForeign()) {
    ESG_LOGE("%s\n", kForeign);
    return 0;
  }
  ProcessCalls::hasAsked = true;
  CallFailure unsent;
  MessagePtr message = ::Call(destination, method, in, unsent);
  const bool isSent = message != nullptr;
  return channel->LateCalls().Start(
      std::move(message), [=, done = std::move(done)](Channel::Outcome outcome, MessagePtr& reply) {
        CallFailure failure = unsent;
        Payload payload;
        const int result =
            isSent ? ::Call(destination, method, outcome, reply.get(), payload.bytes, failure) : -1;
        payload.owner = std::move(reply);
        done(result, payload, failure);
      });
}

bool internal::CancelCall(std::uint64_t number) {
  if (!ProcessCalls::hasAsked) {  // does not connect just to cancel
    return false;
  }
  const ChannelPtr channel = ProcessCalls::Get();
  return !channel->IsForeign() && channel->LateCalls().Cancel(number);
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): part of the interface
const char* ECIPCConnection::m_ConvertMsgTypeToString(eECIPCMessageType type) {
  return internal::MemberName(type);
}

void ECIPCConnection::m_CreateMatchRule(eECIPCMessageType type, int event, char* out) {
  std::snprintf(
      out, kMatchRuleSize, "path='%s', type='signal', interface='%s', member='%s', arg0='%d'",
      internal::kSignalPath, internal::kSignalInterface, m_ConvertMsgTypeToString(type), event);
}

bool ECIPCConnection::AddMatchRule(int event) {
  internal::Error error;
  ChangeMatchRule(*this, m_pConnection_gmainloop, "AddMatch", event, &error);
  if (error.IsSet()) {
    ESG_LOGE("Error while adding match rule: %s\n\n", error.message);
    CallFailure& failure = internal::LastCallFailure();
    failure.isFromBus = true;
    Fail(failure, Kind::Error, error.name, error.message);
  }
  return !error.IsSet();
}

bool ECIPCConnection::RemoveMatchRule(int event) {
  internal::Error error;
  ChangeMatchRule(*this, m_pConnection_gmainloop, "RemoveMatch", event, &error);
  if (error.IsSet()) {
    ESG_LOGE("Error while adding match rule: %s\n\n", error.message);
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
  const ChannelPtr channel = Channel::Of(m_pConnection_gmainloop);
  ESG_ASSERT(channel != nullptr, "m_pConnection_gmainloop", kSource);
  if (channel->IsForeign()) {
    ESG_LOGE("%s\n", internal::kForeign);
    return;
  }
  channel->Attach(context);
}

int ECIPCConnection::m_GetMessageType(DBusMessage* message) {
  for (const eECIPCMessageType type : {Event, Data}) {
    if (dbus_message_is_signal(message, internal::kSignalInterface,
                               m_ConvertMsgTypeToString(type)) != FALSE) {
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
  int number = 0;
  ESGMessageBuffer payload;
  const internal::Read read = internal::ReadSignal(message, number, payload);
  if (read == internal::Read::Empty) {
    ESG_LOGE("Message has no arguments!\n");
    ESG_ASSERT(false, "0", kSource);
  }
  if (read == internal::Read::Wrong) {
    ESG_LOGE("Message has wrong arguments: %s\n", dbus_message_get_signature(message));
    return DBUS_HANDLER_RESULT_HANDLED;
  }
  const EIIPCCallback callback = type == Event ? m_eventCallback : m_dataCallback;
  if (callback != nullptr) {
    Channel::EnterCallback();  // this object may be deleted from now on
    callback(number, payload);
  }
  return DBUS_HANDLER_RESULT_HANDLED;
}
