// The program under stress: one round of everything that an application may do at once. Its
// argument is the round's seed; the last line that it prints says what it did.

#include <IPCS/ECIPCClient.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>

#include "Stress.h"

namespace {

using namespace stress;

/// What a call without an answer takes, in milliseconds.
constexpr long kTimeLimit = 25'000;
constexpr int kLargest = 31 << 20;
/// More than these at once, and the bus would stop reading.
constexpr int kLargeCalls = 3;
constexpr int kOwnEvent = 1000;

/// Like everything here that threads use, not destroyed: they run to the very end.
const Round& TheRound(std::uint64_t seed = 0) {
  static const Round& round = *new Round(seed);
  return round;
}

/// How long a request may take on a very busy machine. One that is forgotten fails before, without
/// a cause.
long Limit() { return 40'000 + TheRound().paused; }

std::atomic<bool> stopping{false};
std::atomic<bool> exiting{false};
std::atomic<int> largeCalls{0};
std::atomic<int> calls{0};
std::atomic<int> failures{0};
std::atomic<int> ownEvents{0};
auto& ownEventMutex = *new std::mutex;
auto& ownEventCame = *new std::condition_variable;

void Sleep(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

Choices ChoicesOf(int thread) {
  return Choices(TheRound().seed * 1000 + static_cast<std::uint64_t>(thread));
}

/// Every failure has a reason in the log, and the reason a cause in this round.
void CheckFailure(const Task& task, bool isMute) {
  ++failures;
  const std::string error(LastError());
  const auto says = [&](const char* text) { return error.find(text) != std::string::npos; };
  const bool losesBus = TheRound().losesBus || exiting;
  const bool isFine =
      says("Did not receive a reply") ? isMute && task.Milliseconds() >= kTimeLimit
      : says("recipient disconnected") || says("was not provided by any .service")
          ? TheRound().losesService
          : losesBus && (says("Connection was disconnected before") || says("pending == NULL") ||
                         says("Connection is closed") || says("The client connection is closed"));
  if (!isFine) {
    Fault("failed without a cause: " + task.Text() + ": " + error);
  }
}

/// One call, compared with what it is to return. `beforehand` runs on its thread just before.
template <typename Before>
void CallOnce(int delay, int size, int answerSize, Before beforehand) {
  static std::atomic<int> number{0};
  const std::string request = BytesOf(TheRound().seed, static_cast<std::size_t>(size));
  const std::string method =
      std::to_string(answerSize + 7) + " " + std::to_string(delay) + " " + std::to_string(++number);
  const std::string expected = AnswerTo(method, request);
  ForgetError();
  const Task task("call " + method, Limit() + (delay < 0 ? kTimeLimit : delay));
  beforehand();
  const Answer answer = Call(method.c_str(), request);
  if (answer.first == -1) {
    CheckFailure(task, delay < 0);
  } else if (answer != Answer(1, expected)) {
    Fault("wrong answer: " + task.Text());
  }
  ++calls;
}

int SmallSize(Choices& choices) {
  return choices.OneIn(20) ? choices.Between(1, 200'000) : choices.Between(1, 100);
}
void CallOnce(Choices& choices, int delay) {
  CallOnce(delay, SmallSize(choices), SmallSize(choices), [] {});
}
void CallOnce(Choices& choices) {
  const int delay = choices.OneIn(20) ? choices.Between(1, choices.OneIn(5) ? 500 : 50) : 0;
  if (!choices.OneIn(500) || !TheRound().HasLargeCalls() || largeCalls >= kLargeCalls) {
    CallOnce(choices, delay);
    return;
  }
  const int large = choices.OneIn(8) ? kLargest : choices.Between(1, 4 << 20);
  const bool isAnswer = choices.OneIn(2);
  ++largeCalls;
  CallOnce(delay, isAnswer ? 1 : large, isAnswer ? large : 1, [] {});
  --largeCalls;
}

/// What may fail for the same reasons as a call.
template <typename Work>
void Request(const char* what, Work work) {
  ForgetError();
  const Task task(what, Limit());
  if (!work()) {
    CheckFailure(task, false);
  }
}
void ChangeRules(int event) {
  Request("AddMatchRule", [event] { return Connection().AddMatchRule(event); });
  Request("RemoveMatchRule", [event] { return Connection().RemoveMatchRule(event); });
}

void RunCaller(int thread) {
  Choices choices = ChoicesOf(thread);
  while (!stopping) {
    const int failed = failures;
    choices.OneIn(40) ? ChangeRules(choices.Between(0, 9)) : CallOnce(choices);
    if (failures != failed || choices.OneIn(50)) {
      Sleep(choices.Between(0, 10));
    }
  }
}

/// All callers start together and each makes one request, the next when all have ended: nothing
/// that comes later helps one that is forgotten.
void RunSteps(int thread) {
  Choices choices = ChoicesOf(thread);
  while (!stopping) {
    const bool changesRules = choices.OneIn(4);
    const int delay = choices.OneIn(2) ? choices.Between(1, 50) : 0;
    const int largeAnswers = choices.OneIn(3) && TheRound().HasLargeCalls() ? kLargeCalls : 0;
    auto callers = Threads(TheRound().callers, [&](int i) {
      Choices own = ChoicesOf(i);
      if (changesRules) {
        ChangeRules(i);
      } else if (i < largeAnswers) {
        // Together they reach the 63 MiB at which libdbus stops reading.
        CallOnce(delay, 1, i < 2 ? kLargest : 2 << 20, [&] { ReadSlowly(own.Between(500, 1500)); });
      } else {
        CallOnce(own, delay);
      }
    });
    Join(callers);
  }
}

/// Callers that are cancelled while they wait, read or return.
void RunCancellations(int thread) {
  Choices choices = ChoicesOf(thread);
  while (!stopping) {
    std::atomic<bool> isCalling{false};
    std::thread caller([&, seed = choices.Between(0, 1'000'000)] {
      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
      Choices own(static_cast<std::uint64_t>(seed));
      CallOnce(own.Between(0, 10), SmallSize(own), SmallSize(own), [&] {
        isCalling = true;
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
      });
      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    });
    while (!isCalling) {
      std::this_thread::yield();
    }
    std::this_thread::sleep_for(std::chrono::microseconds(choices.Between(0, 5000)));
    pthread_cancel(caller.native_handle());
    caller.join();
  }
}

[[noreturn]] void EndAsChild(bool isCaller) {
  if (exiting) {
    _exit(EXIT_SUCCESS);  // the library no longer learns of a fork then
  }
  ForgetError();
  if (isCaller &&
      (Call("0 0 0", "") != kFailure || LastError().find("forked") == std::string_view::npos)) {
    Fault("a child's call does not fail as it has to: " + std::string(LastError()));
  }
  std::exit(EXIT_SUCCESS);
}

void RunForks(int thread) {
  Choices choices = ChoicesOf(thread);
  while (!stopping) {
    const bool callsThere = choices.OneIn(2);
    const pid_t child = fork();
    if (child == 0) {
      EndAsChild(callsThere);
    }
    const Task task("a child", Limit(), child);
    int status = -1;
    if (waitpid(child, &status, 0) != child || status != 0) {
      Fault("a child ended with status " + std::to_string(status));
    }
    Sleep(choices.Between(0, 100));
  }
}

/// Posts numbered events to this process.
void Post(int number) {
  Request("post", [number] {
    ESGMessageBuffer payload = Payload(Integers({number}));
    return ECIPCClient::GetInstance()->Send(kOwnEvent, payload);
  });
}

void OnEvent(int number, ESGMessageBuffer& payload) {
  static Choices& choices = *new Choices(TheRound().seed);
  static std::atomic<bool> isInside{false};
  if (isInside.exchange(true)) {
    Fault("an event was delivered inside another one");
  }
  const bool isOwn = number == kOwnEvent;
  if (isOwn && payload.PopInt() != ownEvents + 1) {
    Fault("another event came after " + std::to_string(ownEvents));
  }
  // Now and then something takes long: here, or on a thread that is waited for, in a nested loop.
  const int what = stopping ? 0 : choices.Between(0, 60);
  std::atomic<bool> isDone{false};
  const auto work = [&] {
    Choices own(static_cast<std::uint64_t>(calls));
    what == 1 ? Sleep(own.Between(0, 20)) : own.OneIn(2) ? CallOnce(own) : ChangeRules(9);
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
  {
    const std::lock_guard<std::mutex> lock(ownEventMutex);
    ownEvents += isOwn ? 1 : 0;
  }
  ownEventCame.notify_all();
}

void PrintWork() {
  std::printf("%d calls, %d failures, %d events\n", calls.load(), failures.load(),
              ownEvents.load());
  std::fflush(stdout);
}

}  // namespace

int main(int /*argc*/, char** argv) {
  std::printf("%d\n", getpid());
  const Round& round = TheRound(std::strtoull(argv[1], nullptr, 10));
  StartWatch();
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
  // The sanitizers do not survive a cancellation within poll(), or lose track of its stack.
  start(round.cancels && !kSanitized ? 1 : 0, &RunCancellations);
  start(round.forks && kForksSafely ? 1 : 0, &RunForks);
  start(round.muteCalls, [](int thread) {
    Choices choices = ChoicesOf(thread);
    CallOnce(choices, -1);
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
    Sleep(choices.Between(0, 5));
  }
  if (round.exits) {
    exiting = true;
    PrintWork();
    std::exit(EXIT_SUCCESS);
  }
  stopping = true;
  Join(threads);
  const Task task("the events posted", Limit());
  std::unique_lock<std::mutex> lock(ownEventMutex);
  while (!round.losesBus && !ownEventCame.wait_for(lock, std::chrono::milliseconds(20),
                                                   [&] { return ownEvents >= posted; })) {
    lock.unlock();
    Post(++posted);  // the rest of one goes out with the next
    lock.lock();
  }
  lock.unlock();
  delete loop;
  PrintWork();
  return EXIT_SUCCESS;
}
