// Any message that libdbus lets in, to the decoders of signals and of calls.

#include <dbus/dbus.h>

#include <memory>

#include "Fuzz.h"
#include "IPCS/ECIPCConnection.h"
#include "IPCS/ECNativeConnection.h"
#include "IPCS/ESGMessageBuffer.h"
#include "IPCS/IESGCallListener.h"
#include "PrivateBus.h"
#include "RawPeer.h"

namespace {

using namespace esg::test;

constexpr char kName[] = "com.velmora.ESGCallListener";

fuzz::Goal signalRead{"a signal read"};
fuzz::Goal signalRefused{"a signal with wrong arguments"};
fuzz::Goal callRead{"a call read"};
fuzz::Goal callRefused{"a call with wrong arguments"};

std::string BytesOf(const ESGMessageBuffer& buffer) {
  return {static_cast<const char*>(buffer.GetAsVoidFromOffset(0)), buffer.GetFullBufferSize()};
}

/// What came out of the decoder of signals, whose member is the text here, or of calls.
Body delivered;
int deliveries = 0;

template <eECIPCMessageType type>
void OnSignal(int number, ESGMessageBuffer& payload) {
  ++deliveries;
  delivered = {type == Event ? "Event" : "Data", number, 0, BytesOf(payload)};
}

struct Listener : IESGCallListener {
  bool OnMethodCall(const char* method, ESGMessageBuffer& in, ESGMessageBuffer& out) override {
    ++deliveries;
    delivered = {method, 0, 0, BytesOf(in)};
    return out.PushBuffer(&in);
  }
};

/// Client and service, there for what they make of a message; they need a bus to come into being.
struct Ends {
  Ends() {
    client.SetEventCallbackFunction(&OnSignal<Event>);
    client.SetDataCallbackFunction(&OnSignal<Data>);
    assert(service.Start(kName, &listener));
  }
  struct StartedBus : PrivateBus {
    StartedBus() { Start(); }
  } bus;
  Listener listener;
  ECNativeConnection service;
  ECIPCConnection client;
};

void Expect(DBusHandlerResult result, bool isHandled, bool isRead, const Body& body) {
  assert((result == DBUS_HANDLER_RESULT_HANDLED) == isHandled);
  assert(deliveries == (isRead ? 1 : 0));
  assert(!isRead || (delivered.text == body.text && delivered.number == body.number));
  assert(!isRead || delivered.bytes == body.bytes);
  deliveries = 0;
}

void Decode(Ends& ends, DBusMessage* message) {
  const std::string signature = dbus_message_get_signature(message);
  const bool hasText = signature.rfind("siay", 0) == 0;
  const Body body = hasText ? ReadBody(message) : Body();

  const bool isCall = dbus_message_is_method_call(message, kName, "MethodCall") != FALSE;
  const bool isRead = isCall && hasText;
  Expect(ends.service.m_MessageHandler(message), isRead, isRead, body);
  (hasText ? callRead : callRefused).reached |= isCall;

  const bool isSignal =
      dbus_message_is_signal(message, "com.velmora.ESG.Signal", "Event") != FALSE ||
      dbus_message_is_signal(message, "com.velmora.ESG.Signal", "Data") != FALSE;
  if (!isSignal || !signature.empty()) {  // one without arguments ends the process, and has to
    const int number = static_cast<int>(std::strtol(body.text.c_str(), nullptr, 10));
    const char* member = dbus_message_get_member(message);
    Expect(ends.client.m_MessageHandler(message), isSignal, isSignal && hasText,
           {member != nullptr ? member : "", number, 0, body.bytes});
    (hasText ? signalRead : signalRefused).reached |= isSignal;
  }
}

/// The bytes of a message of ours, with fields from the input.
std::string Build(unsigned int kind, fuzz::Input& input) {
  const int number = input.Take<int>();
  std::string text = input.Bytes(input.Take<std::uint8_t>());
  if (dbus_validate_utf8(text.c_str(), nullptr) == FALSE) {
    text.clear();
  }
  const std::string payload = input.Bytes(input.Take<std::uint8_t>());
  MessagePtr message = MakeCall(kName, text, payload);
  dbus_message_set_serial(message.get(), 1);
  if (kind != 0) {
    message = kind == 1 ? MakeReply(message.get(), number, payload)
                        : MakeSignal(kind == 2 ? "Event" : "Data", number, payload);
  }
  dbus_message_set_serial(message.get(), 1);
  char* bytes = nullptr;
  int size = 0;
  dbus_message_marshal(message.get(), &bytes, &size);
  const std::unique_ptr<char, decltype(&dbus_free)> owner(bytes, &dbus_free);
  return {bytes, static_cast<std::size_t>(size)};
}

}  // namespace

/// A whole message, or one of ours that is changed in places.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Ends ends;
  fuzz::Input input(data, size);
  const unsigned int kind = input.Take<std::uint8_t>() % 5U;
  std::string bytes = kind < 4 ? Build(kind, input) : input.Bytes();
  while (!input.rest.empty()) {
    const std::size_t place = input.Take<std::uint16_t>() % bytes.size();
    bytes[place] = input.Take<char>();
  }
  esg::internal::Error error;
  const MessagePtr message(
      dbus_message_demarshal(bytes.data(), static_cast<int>(bytes.size()), &error));
  if (message != nullptr) {
    Decode(ends, message.get());
  }
  return 0;
}
