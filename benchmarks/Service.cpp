#include "Service.h"

#include <glib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "Bare.h"
#include "Guide.h"
#include "IPCS/ECNativeConnection.h"
#include "IPCS/ESGMessageBuffer.h"
#include "IPCS/IESGCallListener.h"
#include "IPCS/internal/Wire.h"

namespace service {
namespace {

/// Creates a text on its first use, which is before any measurement.
const std::string& Prepared(const std::string& method, std::string_view request) {
  static std::map<unsigned long, std::string> texts;
  constexpr std::string_view kCount = "\"duration\" : ";
  unsigned long count = 0;
  if (method == "GetProgramList") {
    constexpr int kDecimal = 10;
    const std::string text(request);
    count = std::strtoul(text.c_str() + text.find(kCount) + kCount.size(), nullptr, kDecimal);
  }
  std::string& text = texts[count];
  if (text.empty()) {
    text = count == 0 ? guide::Present() : guide::List(static_cast<unsigned int>(count));
  }
  return text;
}

void Flood(DBusConnection* connection, std::string_view request) {
  int order[2];
  std::memcpy(order, request.data(), sizeof(order));
  const int parameters[] = {1, 2, 3};
  const std::string_view payload(reinterpret_cast<const char*>(parameters), sizeof(parameters));
  for (int i = 0; i < order[1]; ++i) {
    dbus_connection_send(connection, bare::NewEvent(order[0], payload).get(), nullptr);
  }
}

DBusHandlerResult OnMessage(DBusConnection* connection, DBusMessage* call, void* /*data*/) {
  if (dbus_message_is_method_call(call, kESGServiceName, esg::internal::kCallMember) == FALSE) {
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  }
  const std::string method = bare::Text(call);
  const std::string_view request = bare::Payload(call);
  static std::string kept;
  if (method == "Keep") {
    kept = request;
  }
  if (method == "Flood") {
    Flood(connection, request);
  } else {
    const std::string_view answer = method == "Echo" ? request
                                    : method == "Keep" || method == "Kept"
                                        ? kept
                                        : Prepared(method, request);
    dbus_connection_send(connection, bare::NewReply(call, answer).get(), nullptr);
    dbus_connection_flush(connection);
  }
  return DBUS_HANDLER_RESULT_HANDLED;
}

class Echo : public IESGCallListener {
 public:
  bool OnMethodCall(const char* /*method*/, ESGMessageBuffer& in, ESGMessageBuffer& out) override {
    return out.PushBuffer(&in);
  }
};

void SayReady() {
  std::puts("ready");
  std::fflush(stdout);
}

}  // namespace

void RunBare() {
  DBusConnection* connection = bare::Open();
  dbus_connection_add_filter(connection, &OnMessage, nullptr, nullptr);
  bare::Require(dbus_bus_request_name(connection, kESGServiceName, 0, nullptr) ==
                    DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER,
                "no name");
  SayReady();
  while (dbus_connection_read_write_dispatch(connection, -1) != FALSE) {
  }
  std::exit(0);
}

void RunListener() {
  Echo echo;
  ECNativeConnection connection;
  bare::Require(connection.Start(kListener, &echo), "no name");
  SayReady();
  for (;;) {
    g_main_context_iteration(nullptr, TRUE);
  }
}

}  // namespace service
