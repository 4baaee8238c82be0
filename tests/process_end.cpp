// Ends as its argument says while the library is in use. Status 0 where all went as it must; a run
// that does not end is killed.

#include <ESGAsync.h>
#include <ESGEMSProxy.h>
#include <IPCS/ECIPCClient.h>
#include <IPCS/ECIPCConnection.h>
#include <IPCS/ECNativeConnection.h>
#include <IPCS/IESGCallListener.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <string>

#include "Client.h"

namespace {

using namespace esg::test;

constexpr unsigned int kPatience = 20;

/// Not destroyed, like everything here that threads use: they run to the very end.
using Promise = std::promise<void>;
Promise& NewPromise() { return *new Promise; }

/// Comes after the library's own static objects, which are made later.
struct Last {
  ~Last() { work(); }
  std::function<void()> work = [] {};
} last;

void Require(bool condition, const char* text) {
  if (!condition) {
    std::fprintf(stderr, "Not so: %s\n", text);
    _exit(EXIT_FAILURE);
  }
}

bool Succeeds() { return Call("echo", "").first == 1; }

template <typename Work>
void Start(Work work) {
  std::thread(std::move(work)).detach();
}
void StartMainLoop() { new MainLoopThread; }

/// Says when something has happened often enough.
struct Counter {
  void Count() {
    if (++count == 60) {
      enough.set_value();
    }
  }
  std::atomic<int> count{0};
  Promise enough;
};

/// Six threads call to the very end, which comes when calls have failed.
void ReturnInCalls() {
  static auto& answered = *new Counter;
  static auto& failed = *new Counter;
  for (int i = 0; i < 6; ++i) {
    Start([] {
      for (;;) {
        (Succeeds() ? answered : failed).Count();
      }
    });
  }
  answered.enough.get_future().wait();
  last.work = [] { failed.enough.get_future().wait(); };
}

void ExitInCalls() {
  ReturnInCalls();
  std::thread([] { std::exit(EXIT_SUCCESS); }).join();
}

/// The main loop shows after the end of the library's connection whether it still uses it.
void ReturnInEvents() {
  static auto& events = *new std::atomic<int>{0};
  Promise& arrived = NewPromise();
  const auto count = [&arrived](int, const ESGEventData& data) {
    if (++events == 3) {
      arrived.set_value();
    }
    return data.m_param1;
  };
  IESGEMS* proxy = ESGEMSProxy::GetInstance(&Connection(), count);
  StartMainLoop();
  Require(proxy->SubscribeSignal(5) == 0, "subscribed");
  arrived.get_future().wait();
  last.work = [] {
    static auto& settled = NewPromise();
    const GSourceFunc onIdle = [](gpointer /*unused*/) -> gboolean {
      static int rounds = 0;
      if (++rounds == 20) {
        settled.set_value();
      }
      return rounds < 20 ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
    };
    g_idle_add(onIdle, nullptr);
    settled.get_future().wait();
  };
}

/// Requests that do not block are asked, answered and cancelled to the very end.
void ReturnInRequests() {
  static auto& counter = *new Counter;
  static std::function<void(ESGAsync::Identifier)> ask = [](ESGAsync::Identifier cancelled) {
    ESGAsync::Cancel(cancelled);
    const auto next = ESGAsync::GetServiceFragment("id", true, nullptr);
    ESGAsync::GetServiceFragment("id", true, [next](const ESGFailure& failure, const std::string&) {
      Require(failure.reason == ESGFailureReason::NoService, "there is no guide service");
      counter.Count();
      ask(next);
    });
  };
  for (int i = 0; i < 200; ++i) {
    ask(0);
  }
  StartMainLoop();
  counter.enough.get_future().wait();
}

/// The exception ends the process where it was thrown.
void ThrowInRequest() {
  std::set_terminate([] { _exit(EXIT_SUCCESS); });
  ESGAsync::SaveServiceFragment("/p", "id", true, [](const ESGFailure&) { throw 1; });
  try {
    IterateUntil([] { return false; });
  } catch (int) {
    Require(false, "no exception passes through the main loop");
  }
}

void RequestAndWait() {
  bool isAnswered = false;
  ESGAsync::GetServiceFragment(
      "id", true, [&isAnswered](const ESGFailure& failure, const std::string&) {
        Require(failure.reason == ESGFailureReason::NoService, "the bus answers for the service");
        isAnswered = true;
      });
  IterateUntil([&] { return isAnswered; });
}

/// The connection is still there: it was made before the function was registered.
void RequestInAtExit() {
  ESGAsync::Connect();
  std::atexit(&RequestAndWait);
  RequestAndWait();
}

/// A request after the end delivers none that was under way.
void RequestAfterTheEnd() {
  ESGAsync::GetServiceFragment("id", true, [](const ESGFailure&, const std::string&) {
    Require(false, "no callback is called after the end");
  });
  last.work = [] {
    ESGAsync::GetServiceFragment("id", true, nullptr);
    for (int i = 0; i < 20; ++i) {
      g_main_context_iteration(nullptr, FALSE);
    }
  };
}

constexpr char kOwnName[] = "com.velmora.Own";

struct Listener : IESGCallListener {
  explicit Listener(std::function<void()> work) : onCall(std::move(work)) {}
  bool OnMethodCall(const char*, ESGMessageBuffer&, ESGMessageBuffer&) override {
    onCall();
    return true;
  }
  std::function<void()> onCall;
};

/// Serves the calls of this process to its end.
void StartService(std::function<void()> onCall) {
  static ECNativeConnection service;
  StartMainLoop();
  Require(service.Start(kOwnName, new Listener(std::move(onCall))), "the service starts");
}

/// A call is being served, without an end, which the process does not wait for.
void ReturnWhileListenerIsBusy() {
  Promise& busy = NewPromise();
  StartService([&busy] {
    busy.set_value();
    NewPromise().get_future().wait();
  });
  Start([] { Call("wait", "", kOwnName); });
  busy.get_future().wait();
  alarm(kPatience / 4);
}

/// Of the events of a connection that is deleted, none is delivered after that.
void DeleteWhileCallbackIsBusy() {
  static auto& busy = NewPromise();
  static auto& proceed = NewPromise();
  static auto& sentinel = NewPromise();
  auto* connection = new ECIPCConnection;
  connection->SetGMainLoop(nullptr);
  connection->SetEventCallbackFunction([](int number, ESGMessageBuffer& /*payload*/) {
    Require(number == 1, "no event arrives after the end");
    busy.set_value();
    proceed.get_future().wait();
  });
  Connection().SetGMainLoop(nullptr);
  Connection().SetEventCallbackFunction(
      [](int /*number*/, ESGMessageBuffer& /*payload*/) { sentinel.set_value(); });
  StartMainLoop();
  ESGMessageBuffer payload;
  for (const int number : {1, 2}) {
    TheEmitter().m_Send(connection->GetConnectionId(), Event, number, payload);
  }
  TheEmitter().m_Send(Connection().GetConnectionId(), Event, 3, payload);
  busy.get_future().wait();
  delete connection;
  proceed.set_value();
  sentinel.get_future().wait();
}

void ExpectNoConnection() {
  Require(!Succeeds(), "a call fails");
  Require(Connection().GetConnectionId().empty(), "no id");
}

/// Each call after the end of the process-wide connection fails: in an atexit handler, in the
/// destructor of a static object, and in a thread that continues.
void CallAfterTheEnd() {
  static auto& late = NewPromise();
  static auto& done = NewPromise();
  std::atexit(&ExpectNoConnection);
  Require(Succeeds(), "a call is answered");
  Start([] {
    late.get_future().wait();
    ExpectNoConnection();
    done.set_value();
  });
  last.work = [] {
    ExpectNoConnection();
    late.set_value();
    done.get_future().wait();
  };
}

/// What a child process does: every other one ends at once.
[[noreturn]] void EndAsChild(int number) {
  alarm(kPatience);
  if (number % 2 == 0) {
    ESGMessageBuffer payload;
    Require(!Succeeds(), "a call of the child fails");
    Require(!Connection().AddMatchRule(number), "a rule of the child fails");
    ECIPCClient::GetInstance()->Send(number, payload);
    Require(ESGAsync::GetServiceFragment("id", true, nullptr) == 0, "no request of the child");
  }
  std::exit(EXIT_SUCCESS);
}

/// The connections of all kinds are in use while the process forks, and stay in use.
void Fork() {
  static auto& event = *new std::promise<int>;
  StartService([] {});
  Connection().SetGMainLoop(nullptr);
  Connection().SetEventCallbackFunction(
      [](int number, ESGMessageBuffer& /*payload*/) { event.set_value(number); });
  ESGMessageBuffer payload;
  ECIPCClient* emitter = ECIPCClient::GetInstance();
  std::atomic<bool> isDone{false};
  auto callers = Threads(8, [&](int i) {
    while (!isDone) {
      Require(i % 2 == 0 ? Succeeds() : Call("m", "", kOwnName).first == 1, "a call is answered");
    }
  });
  constexpr int kChildren = 20;
  for (int i = 0; i < kChildren; ++i) {
    if (fork() == 0) {
      EndAsChild(i);
    }
  }
  for (int i = 0; i < kChildren; ++i) {
    int status = -1;
    Require(wait(&status) > 0 && status == 0, "a child ends well");
  }
  isDone = true;
  Join(callers);
  Require(Connection().AddMatchRule(5) && emitter->Send(99, payload), "the parent goes on");
  Require(event.get_future().get() == 99, "no child has sent anything");
}

}  // namespace

int main(int argc, char** argv) {
  const std::map<std::string, void (*)()> ways = {
      {"ReturnInCalls", &ReturnInCalls},
      {"ExitInCalls", &ExitInCalls},
      {"ReturnInEvents", &ReturnInEvents},
      {"ReturnInRequests", &ReturnInRequests},
      {"ThrowInRequest", &ThrowInRequest},
      {"RequestInAtExit", &RequestInAtExit},
      {"RequestAfterTheEnd", &RequestAfterTheEnd},
      {"ReturnWhileListenerIsBusy", &ReturnWhileListenerIsBusy},
      {"DeleteWhileCallbackIsBusy", &DeleteWhileCallbackIsBusy},
      {"CallAfterTheEnd", &CallAfterTheEnd},
      {"Fork", &Fork},
  };
  alarm(kPatience);
  ways.at(argc == 2 ? argv[1] : "")();
}
