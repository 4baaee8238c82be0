// Ends, as its argument says, while the library is in use. Ends with status 0 if everything
// happened as it must. A run that does not end is killed.

#include <ESGAsync.h>
#include <ESGEMSProxy.h>
#include <IPCS/ECNativeConnection.h>
#include <IPCS/IESGCallListener.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>

#include "Client.h"

namespace {

using namespace esg::test;

constexpr unsigned int kPatience = 20;

void Require(bool condition, const char* text) {
  if (!condition) {
    std::fprintf(stderr, "Not so: %s\n", text);
    _exit(EXIT_FAILURE);
  }
}

/// Its destructor runs after those of the library's static objects, which are created later.
struct Last {
  ~Last() { work(); }
  std::function<void()> work = [] {};
} last;

/// Counts something. Like everything here that threads use, it is not destroyed: threads run to the
/// very end.
class Counter {
 public:
  static Counter& New() { return *new Counter; }
  void Count() {
    m_count.With([](int& count) { ++count; });
  }
  void WaitFor(int number) {
    Require(m_count.WaitUntil([number](int count) { return count >= number; }), "it goes on");
  }

 private:
  Shared<int> m_count;
};

bool Succeeds() { return Call("echo", "").first == 1; }

template <typename Work>
void Start(Work work) {
  std::thread(std::move(work)).detach();
}
void StartMainLoop() { new MainLoopThread; }

/// Calls, requests and events go on to the very end. Afterwards calls fail.
void ReturnInUse() {
  static auto& answered = Counter::New();
  static auto& failed = Counter::New();
  static auto& events = Counter::New();
  static auto& requests = Counter::New();
  static std::function<void(ESGAsync::Identifier)> ask = [](ESGAsync::Identifier cancelled) {
    ESGAsync::Cancel(cancelled);
    const auto next = ESGAsync::GetServiceFragment("id", true, nullptr);
    ESGAsync::GetServiceFragment("id", true, [next](const ESGFailure& failure, const std::string&) {
      Require(failure.reason == ESGFailureReason::NoService, "there is no guide service");
      requests.Count();
      ask(next);
    });
  };
  for (int i = 0; i < 6; ++i) {
    Start([] {
      for (;;) {
        (Succeeds() ? answered : failed).Count();
      }
    });
  }
  IESGEMS* proxy = ESGEMSProxy::GetInstance(&Connection(), [](int, const ESGEventData& data) {
    events.Count();
    return data.m_param1;
  });
  Require(proxy->SubscribeSignal(5) == 0, "subscribed");
  for (int i = 0; i < 200; ++i) {
    ask(0);
  }
  StartMainLoop();
  answered.WaitFor(60);
  requests.WaitFor(60);
  events.WaitFor(3);
  last.work = [] { failed.WaitFor(60); };
}

constexpr char kOwnName[] = "com.velmora.Own";

/// The process does not wait for a call that is served without end.
void ReturnWhileListenerIsBusy() {
  static auto& busy = Counter::New();
  static ECNativeConnection service;
  struct Listener : IESGCallListener {
    bool OnMethodCall(const char*, ESGMessageBuffer&, ESGMessageBuffer&) override {
      busy.Count();
      for (;;) {
        pause();
      }
    }
  };
  StartMainLoop();
  Require(service.Start(kOwnName, new Listener), "the service starts");
  Start([] { Call("wait", "", kOwnName); });
  busy.WaitFor(1);
  alarm(kPatience / 4);
}

void ExpectNoConnection() {
  Require(!Succeeds(), "a call fails");
  Require(Connection().GetConnectionId().empty(), "no id");
}

/// Calls after the end of the process-wide connection fail: in an atexit handler, in the destructor
/// of a static object, and in another thread.
void UseAfterTheEnd() {
  static auto& late = Counter::New();
  static auto& done = Counter::New();
  std::atexit(&ExpectNoConnection);
  Require(Succeeds(), "a call is answered");
  Start([] {
    late.WaitFor(1);
    ExpectNoConnection();
    done.Count();
  });
  last.work = [] {
    ExpectNoConnection();
    late.Count();
    done.WaitFor(1);
    ESGAsync::GetServiceFragment("id", true, [](const ESGFailure&, const std::string&) {
      Require(false, "no callback is called after the end");
    });
    for (int i = 0; i < 20; ++i) {
      g_main_context_iteration(nullptr, FALSE);
    }
  };
}

}  // namespace

int main(int argc, char** argv) {
  const std::map<std::string, void (*)()> ways = {
      {"ReturnInUse", &ReturnInUse},
      {"ReturnWhileListenerIsBusy", &ReturnWhileListenerIsBusy},
      {"UseAfterTheEnd", &UseAfterTheEnd},
  };
  alarm(kPatience);
  ways.at(argc == 2 ? argv[1] : "")();
}
