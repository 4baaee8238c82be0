#include "Harness.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "IPCS/EIIPCConnection.h"

MainLoopThread::MainLoopThread()
    : m_loop(g_main_loop_new(nullptr, FALSE)), m_thread([this] { g_main_loop_run(m_loop); }) {}

MainLoopThread::~MainLoopThread() {
  // From inside: a loop that has not begun to run would not notice.
  const auto quit = [](gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
  };
  g_idle_add(quit, m_loop);
  m_thread.join();
  g_main_loop_unref(m_loop);
}

void Join(std::vector<std::thread>& threads) {
  for (std::thread& thread : threads) {
    thread.join();
  }
}

long Stopwatch::Milliseconds() const {
  const auto elapsed = std::chrono::steady_clock::now() - m_start;
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
}

ESGMessageBuffer Payload(std::string bytes) {
  ESGMessageBuffer buffer;
  buffer.PushConcatenated(bytes.size(), bytes.data());
  return buffer;
}

std::string Bytes(const ESGMessageBuffer& buffer) {
  return {static_cast<char*>(buffer.GetAsVoidFromOffset(0)), buffer.GetFullBufferSize()};
}

Answer Call(const char* method, const std::string& payload, const std::string& destination) {
  ESGMessageBuffer in = Payload(payload);
  ESGMessageBuffer out;
  const int result = EIIPCConnection::GetInstance()->Call(destination, method, in, out);
  return {result, Bytes(out)};
}

ECIPCBroadcaster& TheEmitter() {
  static ECIPCBroadcaster emitter;
  return emitter;
}

static void Append(DBusMessageIter* to, DBusSignatureIter types, int elements) {
  do {
    const int type = dbus_signature_iter_get_current_type(&types);
    if (dbus_type_is_container(type) == FALSE) {
      const char* text = "5";
      dbus_uint64_t number = 5;
      void* value = type == DBUS_TYPE_STRING ? static_cast<void*>(&text) : &number;
      dbus_message_iter_append_basic(to, type, value);
      continue;
    }
    DBusSignatureIter inner;
    DBusMessageIter container;
    dbus_signature_iter_recurse(&types, &inner);
    char* signature = dbus_signature_iter_get_signature(&inner);
    const bool array = type == DBUS_TYPE_ARRAY;
    dbus_message_iter_open_container(to, type, array ? signature : nullptr, &container);
    for (int i = 0; i < (array ? elements : 1); ++i) {
      Append(&container, inner, elements);
    }
    dbus_message_iter_close_container(to, &container);
    dbus_free(signature);
  } while (dbus_signature_iter_next(&types) != FALSE);
}

esg::internal::MessagePtr WithBody(esg::internal::MessagePtr message, const std::string& signature,
                                   int elements) {
  DBusMessageIter body;
  DBusSignatureIter types;
  dbus_message_iter_init_append(message.get(), &body);
  dbus_signature_iter_init(&types, signature.c_str());
  if (!signature.empty()) {
    Append(&body, types, elements);
  }
  return message;
}

std::vector<std::pair<std::string, int>> WrongBodies(const std::string& head) {
  return {{head, 1},
          {"ii", 1},
          {"iis", 1},
          {"sis", 1},
          {head + "iai", 3},
          {head + "iai", 0},
          {head + "iaay", 2},
          {head + "ia(yy)", 1},
          {"(" + head + "iay)", 1},
          {"ay", 0},
          {head == "s" ? "iiay" : "siay", 1}};
}

std::vector<std::string> LongerBodies(const std::string& head) {
  return {head + "iayi", head + "iayay", head + "iays(ii)"};
}

std::size_t LargestPayload(DBusMessage* message) {
  char* bytes = nullptr;
  int size = 0;
  dbus_message_marshal(message, &bytes, &size);
  dbus_free(bytes);
  return (32UL << 20) - static_cast<std::size_t>(size);
}

bool BusTakes(esg::internal::MessagePtr message) {
  esg::internal::Error error;
  const esg::internal::ConnectionPtr connection = OpenBus(error);
  dbus_connection_send(connection.get(), message.get(), nullptr);
  return dbus_bus_name_has_owner(connection.get(), kService, nullptr) != FALSE;
}

int OpenDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<int>(std::distance(begin(all), end(all)));
}

long ResidentKiB() {
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * (sysconf(_SC_PAGESIZE) / 1024);
}
