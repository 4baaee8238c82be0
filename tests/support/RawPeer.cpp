#include "RawPeer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <utility>

using esg::internal::MessagePtr;

namespace {

constexpr std::chrono::seconds kPatience{10};

void Append(DBusMessage* message, int type, const void* head, const std::string& bytes) {
  const char* data = bytes.data();
  const int size = static_cast<int>(bytes.size());
  dbus_message_append_args(message, type, head, DBUS_TYPE_INT32, &size, DBUS_TYPE_ARRAY,
                           DBUS_TYPE_BYTE, &data, size, DBUS_TYPE_INVALID);
}

}  // namespace

esg::internal::ConnectionPtr OpenBus(esg::internal::Error& error) {
  esg::internal::ConnectionPtr connection(dbus_bus_get_private(DBUS_BUS_SYSTEM, &error));
  if (connection != nullptr) {
    dbus_connection_set_exit_on_disconnect(connection.get(), FALSE);
  }
  return connection;
}

RawPeer::RawPeer(const std::string& name, Handler handler)
    : m_handler(std::move(handler)), m_wakeUp(eventfd(0, EFD_CLOEXEC)) {
  dbus_threads_init_default();
  esg::internal::Error error;
  m_connection = OpenBus(error).release();
  if (m_connection == nullptr) {
    throw std::runtime_error(error.message);
  }
  m_uniqueName = dbus_bus_get_unique_name(m_connection);
  if (!name.empty() &&
      dbus_bus_request_name(m_connection, name.c_str(), DBUS_NAME_FLAG_DO_NOT_QUEUE, &error) !=
          DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
    esg::internal::ConnectionPtr(m_connection).reset();
    throw std::runtime_error(error.IsSet() ? error.message : "the name is taken");
  }
  m_thread = std::thread(&RawPeer::Run, this);
}

RawPeer::~RawPeer() {
  Stop();
  close(m_wakeUp);
}

void RawPeer::Stop() {
  if (!m_thread.joinable()) {
    return;
  }
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stop = true;
  }
  eventfd_write(m_wakeUp, 1);
  m_thread.join();
  esg::internal::ConnectionPtr(m_connection).reset();
}

int RawPeer::Calls() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_calls;
}

bool RawPeer::WaitForCalls(int count) {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_changed.wait_for(lock, kPatience, [&] { return m_calls >= count; });
}

dbus_uint32_t RawPeer::Send(MessagePtr message) {
  dbus_uint32_t serial = 0;
  dbus_connection_send(m_connection, message.get(), &serial);
  eventfd_write(m_wakeUp, 1);
  return serial;
}

MessagePtr RawPeer::Call(MessagePtr call) {
  const dbus_uint32_t serial = Send(std::move(call));
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, kPatience, [&] { return m_replies.count(serial) != 0; });
  }
  return Answer(serial);
}

MessagePtr RawPeer::Answer(dbus_uint32_t serial) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  MessagePtr reply = std::move(m_replies[serial]);
  m_replies.erase(serial);
  return reply;
}

void RawPeer::Sync() {
  if (Call(MessagePtr(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                   DBUS_INTERFACE_PEER, "Ping"))) == nullptr) {
    throw std::runtime_error("the bus does not answer");
  }
}

void RawPeer::AddMatch(const std::string& rule) {
  MessagePtr call(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                               DBUS_INTERFACE_DBUS, "AddMatch"));
  const char* text = rule.c_str();
  dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  const MessagePtr reply = Call(std::move(call));
  if (reply == nullptr || dbus_message_get_type(reply.get()) != DBUS_MESSAGE_TYPE_METHOD_RETURN) {
    throw std::runtime_error("match rule refused: " + rule);
  }
}

MessagePtr RawPeer::NextSignal() {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (!m_changed.wait_for(lock, kPatience, [&] { return !m_signals.empty(); })) {
    return nullptr;
  }
  MessagePtr signal = std::move(m_signals.front());
  m_signals.pop_front();
  return signal;
}

void RawPeer::Run() {
  pollfd descriptors[] = {{-1, 0, 0}, {m_wakeUp, POLLIN, 0}};
  dbus_connection_get_unix_fd(m_connection, &descriptors[0].fd);
  while (dbus_connection_read_write(m_connection, 0) != FALSE) {
    while (MessagePtr message{dbus_connection_pop_message(m_connection)}) {
      Handle(std::move(message));
    }
    const bool writes = dbus_connection_has_messages_to_send(m_connection) != FALSE;
    descriptors[0].events = static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN);
    poll(descriptors, 2, -1);
    if (descriptors[1].revents != 0) {
      eventfd_t ignored = 0;
      eventfd_read(m_wakeUp, &ignored);
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_stop) {
      return;
    }
  }
}

void RawPeer::Handle(MessagePtr message) {
  const int type = dbus_message_get_type(message.get());
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (type == DBUS_MESSAGE_TYPE_METHOD_CALL) {
      ++m_calls;
    } else if (type != DBUS_MESSAGE_TYPE_SIGNAL) {
      m_replies[dbus_message_get_reply_serial(message.get())] = std::move(message);
    } else if (dbus_message_has_sender(message.get(), DBUS_SERVICE_DBUS) == FALSE) {
      m_signals.push_back(std::move(message));
    }
    m_changed.notify_all();
  }
  if (type == DBUS_MESSAGE_TYPE_METHOD_CALL && m_handler) {
    if (const MessagePtr reply = m_handler(message.get())) {
      dbus_connection_send(m_connection, reply.get(), nullptr);
    }
  }
}

MessagePtr MakeCall(const std::string& destination, const std::string& method,
                    const std::string& bytes) {
  MessagePtr call(dbus_message_new_method_call(destination.c_str(), "/com/velmora/Object",
                                               destination.c_str(), "MethodCall"));
  const char* head = method.c_str();
  Append(call.get(), DBUS_TYPE_STRING, &head, bytes);
  return call;
}

MessagePtr MakeReply(DBusMessage* call, int result, const std::string& bytes) {
  MessagePtr reply(dbus_message_new_method_return(call));
  Append(reply.get(), DBUS_TYPE_INT32, &result, bytes);
  return reply;
}

MessagePtr MakeSignal(const char* member, int number, const std::string& bytes,
                      const std::string& destination) {
  MessagePtr signal(
      dbus_message_new_signal("/com/velmora/ESG/IPCS", "com.velmora.ESG.Signal", member));
  const std::string text = std::to_string(number);
  const char* head = text.c_str();
  Append(signal.get(), DBUS_TYPE_STRING, &head, bytes);
  if (!destination.empty()) {
    dbus_message_set_destination(signal.get(), destination.c_str());
  }
  return signal;
}

Body ReadBody(DBusMessage* message) {
  Body body;
  const char* text = "";
  const char* data = nullptr;
  int size = 0;
  const bool isText = dbus_message_get_signature(message)[0] == DBUS_TYPE_STRING;
  const void* head = isText ? static_cast<const void*>(&text) : &body.number;
  if (dbus_message_get_args(message, nullptr, isText ? DBUS_TYPE_STRING : DBUS_TYPE_INT32, head,
                            DBUS_TYPE_INT32, &body.length, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &data,
                            &size, DBUS_TYPE_INVALID) == FALSE) {
    throw std::runtime_error(std::string("body is ") + dbus_message_get_signature(message));
  }
  body.text = text;
  body.bytes = std::string(data, data + size);
  return body;
}

std::string Integers(std::initializer_list<int> values) {
  return {reinterpret_cast<const char*>(values.begin()), values.size() * sizeof(int)};
}
