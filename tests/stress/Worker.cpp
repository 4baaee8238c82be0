// The program under stress: one round of everything that an application may do at once. Its
// argument is the seed of the round. The last line that it writes says what it did.

#include <ESGAsync.h>
#include <IPCS/ECIPCClient.h>
#include <Platform.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "Client.h"
#include "Sanitizers.h"
#include "Stress.h"

namespace {

using namespace esg::test;
using namespace esg::test::stress;

/// What a call without a reply takes, in milliseconds.
constexpr long kTimeLimit = 25'000;
constexpr int kLargest = 31 << 20;
/// With more at once, libdbus would stop reading.
constexpr int kMaxLargeCalls = 3;
constexpr int kOwnEvent = 1000;

/// Like everything here that threads use, not destroyed: they run to the very end.
const Round& TheRound(std::uint64_t seed = 0) {
  static const Round& round = *new Round(seed);
  return round;
}

/// How long a request may take on a very busy machine. One that is forgotten fails earlier, without
/// a cause.
long Limit() { return 40'000 + TheRound().paused; }

std::atomic<bool> stopping{false};
std::atomic<bool> exiting{false};
std::atomic<int> largeCalls{0};
std::atomic<int> calls{0};
std::atomic<int> failures{0};
Shared<int>& OwnEvents() {
  static auto& count = *new Shared<int>;
  return count;
}

/// The last error that this thread has logged. Trivial, because the library logs to the very end of
/// a thread.
thread_local char lastError[512];

/// Writes the fault and the stacks of all threads, and ends the process.
[[noreturn]] void Fault(const char* text) {
  static std::atomic<bool> isReported{false};
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  if (isReported.exchange(true)) {
    for (;;) {
      pause();
    }
  }
  dprintf(STDOUT_FILENO, "FAULT %s\n", text);
  char debugger[200];
  std::snprintf(debugger, sizeof debugger,
                "gdb -nx -batch -iex 'set debuginfod enabled off' -p %d"
                " -ex 'thread apply all backtrace' 2>&1 || echo There are no stacks without gdb.",
                getpid());
  static_cast<void>(std::system(debugger));
  _exit(EXIT_FAILURE);
}

void OnSignal(int signal) {
  Fault(signal == SIGALRM ? "something has not ended" : strsignal(signal));
}

/// Ends all pauses. Like everything that threads use, not destroyed.
std::promise<void>& RoundEnd() {
  static auto& end = *new std::promise<void>;
  return end;
}

/// Waits for the end of the round, but no longer than that.
void Pause(int milliseconds) {
  static const auto& end = *new std::shared_future<void>(RoundEnd().get_future());
  end.wait_for(std::chrono::milliseconds(milliseconds));
}

Choices ChoicesOf(int thread) {
  return Choices(TheRound().seed * 1000 + static_cast<std::uint64_t>(thread));
}

/// Does `work`, which returns whether it succeeds. Every failure must have a reason in the log, and
/// the reason a cause in this round.
template <typename Work>
void Request(const std::string& what, int delay, Work work) {
  lastError[0] = '\0';
  const Stopwatch stopwatch;
  const bool succeeds = work();
  const std::string error(lastError);
  const auto says = [&](const char* text) { return error.find(text) != std::string::npos; };
  const bool losesBus = TheRound().losesBus || exiting;
  const bool isFine =
      succeeds                          ? true
      : says("Did not receive a reply") ? delay < 0 && stopwatch.Milliseconds() >= kTimeLimit
      : says("recipient disconnected") || says("was not provided by any .service")
          ? TheRound().losesService
          : losesBus && (says("Connection was disconnected before") || says("pending == NULL") ||
                         says("Connection is closed") || says("The client connection is closed"));
  failures += succeeds ? 0 : 1;
  const bool isLate = stopwatch.Milliseconds() > Limit() + (delay < 0 ? kTimeLimit : delay);
  if (!isFine || isLate) {
    Fault((what + (isLate ? " took too long: " : " failed without a cause: ") + error).c_str());
  }
}

/// One call, compared with what it must return. `before` runs on its thread just before.
void CallOnce(
    int delay, int size, int replySize, const std::function<void()>& before = [] {}) {
  static std::atomic<int> number{0};
  const std::string request = BytesOf(TheRound().seed, static_cast<std::size_t>(size));
  const std::string method =
      std::to_string(replySize + 7) + " " + std::to_string(delay) + " " + std::to_string(++number);
  const std::string expected = ReplyTo(method, request);
  Request("call " + method, delay, [&] {
    before();
    const Answer answer = Call(method.c_str(), request);
    if (answer.first != -1 && answer != Answer(1, expected)) {
      Fault(("wrong reply to " + method).c_str());
    }
    return answer.first != -1;
  });
  ++calls;
}

int SmallSize(Choices& choices) {
  return choices.OneIn(20) ? choices.Between(1, 200'000) : choices.Between(1, 100);
}
void SmallCall(Choices& choices, int delay) {
  CallOnce(delay, SmallSize(choices), SmallSize(choices));
}
void AnyCall(Choices& choices) {
  const int delay = choices.OneIn(20) ? choices.Between(1, choices.OneIn(5) ? 500 : 50) : 0;
  if (!choices.OneIn(500) || !TheRound().HasLargeCalls() || largeCalls >= kMaxLargeCalls) {
    SmallCall(choices, delay);
    return;
  }
  const int large = choices.OneIn(8) ? kLargest : choices.Between(1, 4 << 20);
  ++largeCalls;
  choices.OneIn(2) ? CallOnce(delay, 1, large) : CallOnce(delay, large, 1);
  --largeCalls;
}

void ChangeRules(int event) {
  Request("AddMatchRule", 0, [event] { return Connection().AddMatchRule(event); });
  Request("RemoveMatchRule", 0, [event] { return Connection().RemoveMatchRule(event); });
}

// What threads run, each until the round ends.

void RunCaller(int thread) {
  Choices choices = ChoicesOf(thread);
  while (!stopping) {
    const int failed = failures;
    choices.OneIn(40) ? ChangeRules(choices.Between(0, 9)) : AnyCall(choices);
    if (failures != failed || choices.OneIn(50)) {
      Pause(choices.Between(0, 10));
    }
  }
}

/// All callers start together. Each makes one request, and the next when all have ended: nothing
/// that comes later helps one that is forgotten.
void RunSteps(int thread) {
  Choices choices = ChoicesOf(thread);
  while (!stopping) {
    const bool changesRules = choices.OneIn(4);
    const int delay = choices.OneIn(2) ? choices.Between(1, 50) : 0;
    const int large = choices.OneIn(3) && TheRound().HasLargeCalls() ? kMaxLargeCalls : 0;
    auto callers = Threads(TheRound().callers, [&](int i) {
      Choices own = ChoicesOf(i);
      if (changesRules) {
        ChangeRules(i);
      } else if (i < large) {
        // Together they reach the 63 MiB at which libdbus stops reading.
        CallOnce(delay, 1, i < 2 ? kLargest : 2 << 20, [&] { ReadSlowly(own.Between(500, 1500)); });
      } else {
        SmallCall(own, delay);
      }
    });
    Join(callers);
  }
}

/// Callers that are cancelled while they wait, read or return.
void RunCancellations(int thread) {
  Choices choices = ChoicesOf(thread);
  while (!stopping) {
    std::promise<void> isCalling;
    std::thread caller([&isCalling, seed = choices.Between(0, 1'000'000)] {
      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
      Choices own(static_cast<std::uint64_t>(seed));
      CallOnce(own.Between(0, 10), SmallSize(own), SmallSize(own), [&] {
        isCalling.set_value();
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
      });
      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    });
    isCalling.get_future().wait();
    std::this_thread::sleep_for(std::chrono::microseconds(choices.Between(0, 5000)));
    pthread_cancel(caller.native_handle());
    caller.join();
  }
}

/// A child may use nothing, and changes nothing for its parent.
[[noreturn]] void EndAsChild(bool usesLibrary) {
  if (exiting) {
    _exit(EXIT_SUCCESS);  // the library no longer learns of a fork then
  }
  alarm(static_cast<unsigned int>(Limit() / 1000));
  ESGMessageBuffer payload;
  if (usesLibrary &&
      (Call("0 0 0", "") != kFailure || std::strstr(lastError, "forked") == nullptr ||
       Connection().AddMatchRule(9) || ECIPCClient::GetInstance()->Send(kOwnEvent, payload) ||
       ESGAsync::GetServiceFragment("id", true, nullptr) != 0)) {
    Fault("a child can use the library");
  }
  std::exit(EXIT_SUCCESS);
}

void RunForks(int thread) {
  Choices choices = ChoicesOf(thread);
  while (!stopping) {
    const bool usesLibrary = choices.OneIn(2);
    const pid_t child = fork();
    if (child == 0) {
      EndAsChild(usesLibrary);
    }
    int status = -1;
    if (waitpid(child, &status, 0) != child || status != 0) {
      Fault("a child did not end well");
    }
    Pause(choices.Between(0, 100));
  }
}

/// Posts numbered events to this process.
void Post(int number) {
  Request("post", 0, [number] {
    ESGMessageBuffer payload = Payload(Integers({number}));
    return ECIPCClient::GetInstance()->Send(kOwnEvent, payload);
  });
}

void OnEvent(int number, ESGMessageBuffer& payload) {
  static Choices& choices = *new Choices(TheRound().seed);
  static std::atomic<bool> isInside{false};
  static int previous = 0;
  if (isInside.exchange(true)) {
    Fault("an event was delivered inside another one");
  }
  if (number == kOwnEvent && payload.PopInt() != ++previous) {
    Fault("an event was lost, or came too early");
  }
  // Now and then something takes long: here, or on a thread that a nested loop waits for.
  const int what = stopping ? 0 : choices.Between(0, 60);
  std::atomic<bool> isDone{false};
  const auto work = [&] {
    Choices own(static_cast<std::uint64_t>(calls));
    what == 1 ? Pause(own.Between(0, 20)) : own.OneIn(2) ? AnyCall(own) : ChangeRules(9);
    isDone = true;
    g_main_context_wakeup(nullptr);
  };
  if (what == 1 || what == 2) {
    work();
  } else if (what == 3 || what == 4) {
    std::thread thread(work);
    IterateUntil([&] { return what == 3 || isDone; });
    thread.join();
  }
  isInside = false;
  OwnEvents().With([](int& count) { count = previous; });
}

[[noreturn]] void End() {
  std::printf("%d calls, %d failures\n", calls.load(), failures.load());
  std::exit(EXIT_SUCCESS);
}

}  // namespace

// They replace the platform's.

int __dlog_print(int /*logBuffer*/, int priority, const char* /*tag*/, const char* format, ...) {
  if (priority >= ESG_LOG_PRIORITY_ERROR) {
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(lastError, sizeof lastError, format, arguments);
    va_end(arguments);
  }
  return 0;
}

void _FCAssert(const char* expression, const char* /*sourcePath*/, int /*line*/) {
  Fault(expression);
}

int main(int /*argc*/, char** argv) {
  const Round& round = TheRound(std::strtoull(argv[1], nullptr, 10));
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);  // for the debugger
  for (const int signal : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL, SIGALRM}) {
    std::signal(signal, &OnSignal);
  }
  // The last calls start when the round ends, and may all have no reply.
  alarm(static_cast<unsigned int>((round.milliseconds + Limit() + kTimeLimit) / 1000));
  Perturb(round.seed, round.perturbation);
  Connection().SetEventCallbackFunction(&OnEvent);
  Connection().SetGMainLoop(nullptr);
  ECIPCClient::GetInstance();
  static auto* const loop = new MainLoopThread;
  static auto& threads = *new std::vector<std::thread>;
  const auto start = [&](int count, void (*run)(int)) {
    for (int i = 0; i < count; ++i) {
      threads.emplace_back(run, static_cast<int>(threads.size()));
    }
  };
  round.inStep ? start(1, &RunSteps) : start(round.callers, &RunCaller);
  // The sanitizers do not survive a cancellation within poll(), or lose track of its stack. In a
  // child, another thread may have held the locks of their allocators.
  start(round.cancels && !kSanitized ? 1 : 0, &RunCancellations);
  start(round.forks && !kSanitized ? 1 : 0, &RunForks);
  start(round.silentCalls, [](int thread) {
    Choices choices = ChoicesOf(thread);
    SmallCall(choices, -1);
  });
  std::puts("ready");
  std::fflush(stdout);
  const Stopwatch stopwatch;
  int posted = 0;
  Choices choices = ChoicesOf(-1);
  while (stopwatch.Milliseconds() < round.milliseconds) {
    if (!round.inStep) {
      Post(++posted);
    }
    Pause(choices.Between(0, 5));
  }
  if (round.exits) {
    exiting = true;
    End();
  }
  stopping = true;
  RoundEnd().set_value();
  Join(threads);
  while (!round.losesBus && !OwnEvents().WaitUntil([posted](int count) { return count >= posted; },
                                                   std::chrono::milliseconds(20))) {
    Post(++posted);  // also sends what is left of one
  }
  delete loop;
  End();
}
