#include "RawPeer.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <stdexcept>
#include <utility>

namespace esg::test {

internal::ConnectionPtr OpenBus(internal::Error& error) {
  internal::ConnectionPtr connection(dbus_bus_get_private(DBUS_BUS_SYSTEM, &error));
  if (connection != nullptr) {
    dbus_connection_set_exit_on_disconnect(connection.get(), FALSE);
  }
  return connection;
}

RawPeer::RawPeer(const std::string& name, Handler handler)
    : m_handler(std::move(handler)), m_wakeUp(eventfd(0, EFD_CLOEXEC)) {
  dbus_threads_init_default();
  internal::Error error;
  internal::ConnectionPtr connection = OpenBus(error);
  if (connection == nullptr) {
    throw std::runtime_error(error.message);
  }
  m_uniqueName = dbus_bus_get_unique_name(connection.get());
  if (!name.empty() &&
      dbus_bus_request_name(connection.get(), name.c_str(), DBUS_NAME_FLAG_DO_NOT_QUEUE, &error) !=
          DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
    throw std::runtime_error(error.IsSet() ? error.message : "the name is taken");
  }
  m_connection = connection.release();
  m_thread = std::thread(&RawPeer::Run, this);
}

void RawPeer::Stop() {
  if (m_thread.joinable()) {
    m_received.With([](Received& received) { received.stops = true; });
    eventfd_write(m_wakeUp.number, 1);
    m_thread.join();
    internal::ConnectionPtr(m_connection).reset();
  }
}

int RawPeer::Calls() {
  return m_received.With([](Received& received) { return received.calls; });
}

bool RawPeer::WaitForCalls(int count) {
  return m_received.WaitUntil([count](Received& received) { return received.calls >= count; });
}

dbus_uint32_t RawPeer::Send(MessagePtr message) {
  dbus_uint32_t serial = 0;
  dbus_connection_send(m_connection, message.get(), &serial);
  eventfd_write(m_wakeUp.number, 1);
  return serial;
}

MessagePtr RawPeer::Call(MessagePtr call) {
  const dbus_uint32_t serial = Send(std::move(call));
  m_received.WaitUntil(
      [serial](Received& received) { return received.replies.count(serial) != 0; });
  return Answer(serial);
}

MessagePtr RawPeer::Answer(dbus_uint32_t serial) {
  return m_received.With([serial](Received& received) {
    const auto reply = received.replies.extract(serial);
    return reply.empty() ? nullptr : std::move(reply.mapped());
  });
}

void RawPeer::AskBus(const char* interface, const char* method, const char* argument) {
  MessagePtr call(
      dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, interface, method));
  if (argument != nullptr) {
    dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &argument, DBUS_TYPE_INVALID);
  }
  const MessagePtr reply = Call(std::move(call));
  if (reply == nullptr || dbus_message_get_type(reply.get()) != DBUS_MESSAGE_TYPE_METHOD_RETURN) {
    throw std::runtime_error(std::string("the bus refuses ") + method);
  }
}

void RawPeer::Sync() { AskBus(DBUS_INTERFACE_PEER, "Ping", nullptr); }

void RawPeer::AddMatch(const std::string& rule) {
  AskBus(DBUS_INTERFACE_DBUS, "AddMatch", rule.c_str());
}

void RawPeer::Run() {
  pollfd descriptors[] = {{-1, 0, 0}, {m_wakeUp.number, POLLIN, 0}};
  dbus_connection_get_unix_fd(m_connection, &descriptors[0].fd);
  while (dbus_connection_read_write(m_connection, 0) != FALSE &&
         !m_received.With([](Received& received) { return received.stops; })) {
    while (MessagePtr message{dbus_connection_pop_message(m_connection)}) {
      Handle(std::move(message));
    }
    const bool writes = dbus_connection_has_messages_to_send(m_connection) != FALSE;
    descriptors[0].events = static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN);
    poll(descriptors, 2, -1);
    if (descriptors[1].revents != 0) {
      eventfd_t ignored = 0;
      eventfd_read(m_wakeUp.number, &ignored);
    }
  }
}

void RawPeer::Handle(MessagePtr message) {
  const int type = dbus_message_get_type(message.get());
  if (type == DBUS_MESSAGE_TYPE_METHOD_CALL) {
    m_received.With([](Received& received) { ++received.calls; });
    const MessagePtr reply = m_handler ? m_handler(message.get()) : nullptr;
    if (reply != nullptr) {
      dbus_connection_send(m_connection, reply.get(), nullptr);
    }
  } else if (type != DBUS_MESSAGE_TYPE_SIGNAL) {
    const dbus_uint32_t serial = dbus_message_get_reply_serial(message.get());
    m_received.With([&](Received& received) { received.replies[serial] = std::move(message); });
  } else if (dbus_message_has_sender(message.get(), DBUS_SERVICE_DBUS) == FALSE) {
    m_signals.Put(std::move(message));
  }
}

}  // namespace esg::test
