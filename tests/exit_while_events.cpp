// Returns from main while another thread runs the main loop and events keep arriving.

#include <ESGEMSProxy.h>
#include <IPCS/EIIPCConnection.h>
#include <glib.h>

#include <atomic>
#include <future>
#include <thread>

namespace {

// None is destroyed: events come to the very end.
std::atomic<int> events{0};
std::promise<void>& arrived = *new std::promise<void>;

std::promise<void>& settled = *new std::promise<void>;

gboolean OnIdle(gpointer /*unused*/) {
  static int rounds = 0;
  ++rounds;
  if (rounds == 20) {
    settled.set_value();
  }
  return rounds < 20 ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

/// Goes after the library's connection: lets the loop show whether it still uses that.
struct Linger {
  ~Linger() {
    g_idle_add(&OnIdle, nullptr);
    settled.get_future().wait();
  }
} linger;

}  // namespace

int main() {
  IESGEMS* proxy =
      ESGEMSProxy::GetInstance(EIIPCConnection::GetInstance(), [](int, const ESGEventData& data) {
        if (++events == 3) {
          arrived.set_value();
        }
        return data.m_param1;
      });
  std::thread([] { g_main_loop_run(g_main_loop_new(nullptr, FALSE)); }).detach();
  if (proxy->SubscribeSignal(5) != 0) {
    return 1;
  }
  arrived.get_future().wait();
  return 0;
}
