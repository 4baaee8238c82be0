// Loads the library that its argument names, without being linked with it, and unloads it while
// events arrive.

#include <IPCS/EIIPCConnection.h>
#include <dlfcn.h>
#include <glib.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <thread>

namespace {

constexpr unsigned int kPatience = 20;

// Never destroyed: events come to the very end.
std::promise<void>& first = *new std::promise<void>;
std::promise<void>& enough = *new std::promise<void>;
std::atomic<bool> unloaded{false};

void OnEvent(int /*number*/, ESGMessageBuffer& /*payload*/) {
  static int before = 0;
  static int after = 0;
  if (!unloaded && ++before == 1) {
    first.set_value();
  } else if (unloaded && ++after == 10) {
    enough.set_value();
  }
}

}  // namespace

int main(int /*argc*/, char** argv) {
  alarm(kPatience);
  void* library = dlopen(argv[1], RTLD_NOW);
  void* instance = dlsym(library, "_ZN15EIIPCConnection11GetInstanceEv");
  EIIPCConnection* connection = reinterpret_cast<EIIPCConnection* (*)()>(instance)();
  connection->SetGMainLoop(nullptr);
  connection->SetEventCallbackFunction(&OnEvent);
  std::thread([] { g_main_loop_run(g_main_loop_new(nullptr, FALSE)); }).detach();
  if (!connection->AddMatchRule(5)) {
    return EXIT_FAILURE;
  }
  first.get_future().wait();
  dlclose(library);
  unloaded = true;
  enough.get_future().wait();
}
