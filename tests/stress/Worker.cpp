// The program under stress: one round of everything that an application may do at once. Its
// argument is the round's seed; the last line that it prints says what it did.

#include <IPCS/ECIPCClient.h>
#include <IPCS/EIIPCConnection.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "Harness.h"
#include "Perturb.h"
#include "Round.h"
#include "Watch.h"

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

/// How long a request may take on a busy machine, and with these pauses.
long Limit() { return (kSanitized ? 15'000 : 6'000) + TheRound().Paused(); }

std::atomic<bool> stopping{false};
std::atomic<bool> exiting{false};
std::atomic<int> largeCalls{0};
std::atomic<int> calls{0};
std::atomic<int> failures{0};
std::atomic<int> rules{0};
std::atomic<int> ownEvents{0};
std::mutex ownEventMutex;
std::condition_variable ownEventCame;
std::atomic<int> foreignEvents{0};
std::atomic<int> cancellations{0};
std::atomic<int> children{0};

void Sleep(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

Choices ChoicesOf(int thread) {
  return Choices(TheRound().seed * 1000 + static_cast<std::uint64_t>(thread));
}

/// Every failure has a reason in the log, and the reason a cause in this round.
void CheckFailure(const Task& task, bool isMute) {
  ++failures;
  const std::string_view error = LastError();
  const auto says = [error](const char* text) {
    return error.find(text) != std::string_view::npos;
  };
  const Round& round = TheRound();
  const bool losesBus = round.LosesBus() || exiting;
  const bool isFine =
      says("Did not receive a reply") ? isMute && task.Milliseconds() >= kTimeLimit
      : says("recipient disconnected") || says("was not provided by any .service")
          ? round.LosesService()
          : losesBus && (says("Connection was disconnected before") || says("pending == NULL") ||
                         says("Connection is closed") || says("The client connection is closed"));
  if (!isFine) {
    Fault("failed without a cause: " + task.Text() + ": " +
          (error.empty() ? "no log line" : std::string(error)));
  }
}

int SmallSize(Choices& choices) {
  return choices.OneIn(20) ? choices.Between(1, 200'000) : choices.Between(1, 100);
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
  const Answer answer = Call(method.c_str(), request, kService);
  if (answer.first == -1) {
    CheckFailure(task, delay < 0);
  } else if (answer != Answer(1, expected)) {
    Fault("wrong answer: " + task.Text());
  }
  ++calls;
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

void ChangeRule(bool adds, int event) {
  ForgetError();
  const Task task(adds ? "AddMatchRule" : "RemoveMatchRule", Limit());
  EIIPCConnection& connection = *EIIPCConnection::GetInstance();
  if (!(adds ? connection.AddMatchRule(event) : connection.RemoveMatchRule(event))) {
    CheckFailure(task, false);
  }
  ++rules;
}

void RunCaller(int thread) {
  Choices choices = ChoicesOf(thread);
  int event = -1;
  while (!stopping) {
    const int failed = failures;
    if (choices.OneIn(20)) {
      const bool adds = event < 0;
      event = adds ? choices.Between(0, 9) : event;
      ChangeRule(adds, event);
      event = adds ? event : -1;
    } else {
      CallOnce(choices);
    }
    if (failures != failed || choices.OneIn(50)) {
      Sleep(choices.Between(0, 10));
    }
  }
}

/// All callers begin together and each makes one request, the next when all have ended: nothing
/// that comes later helps one that is forgotten.
void RunSteps(int thread) {
  Choices choices = ChoicesOf(thread);
  while (!stopping) {
    const bool changesRules = choices.OneIn(4);
    const int delay = choices.OneIn(2) ? choices.Between(1, 50) : 0;
    const int largeAnswers = choices.OneIn(3) && TheRound().HasLargeCalls() ? kLargeCalls : 0;
    std::vector<std::thread> callers = Threads(TheRound().callers, [&](int i) {
      Choices own = ChoicesOf(i);
      if (changesRules) {
        ChangeRule(true, i);
        ChangeRule(false, i);
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
    ++cancellations;
  }
}

[[noreturn]] void EndAsChild(bool isCaller) {
  if (exiting) {
    _exit(EXIT_SUCCESS);  // the library no longer learns of a fork then
  }
  ForgetError();
  if (isCaller && (Call("0 0 0", "", kService).first != -1 ||
                   LastError().find("forked") == std::string_view::npos)) {
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
    ++children;
    Sleep(choices.Between(0, 100));
  }
}

void RunMuteCall(int thread) {
  Choices choices = ChoicesOf(thread);
  CallOnce(choices, -1);
}

/// Posts numbered events to this process.
void Post(int number) {
  ForgetError();
  const Task task("post", Limit());
  ESGMessageBuffer payload = Payload(Integers({number}));
  if (!ECIPCClient::GetInstance()->Send(kOwnEvent, payload)) {
    CheckFailure(task, false);
  }
}

/// Runs the loop that this is called from until `work` is done on another thread.
template <typename Work>
void WaitInNestedLoop(Work work) {
  std::atomic<bool> isDone{false};
  std::thread thread([&] {
    work();
    isDone = true;
    g_main_context_wakeup(nullptr);
  });
  while (!isDone) {
    g_main_context_iteration(nullptr, TRUE);
  }
  thread.join();
}

void OnEvent(int number, ESGMessageBuffer& payload) {
  static Choices& choices = *new Choices(TheRound().seed);
  static std::atomic<bool> isInside{false};
  if (isInside.exchange(true)) {
    Fault("an event was delivered inside another one");
  }
  if (number == kOwnEvent) {
    const int posted = payload.PopInt();
    if (posted != ownEvents + 1) {
      Fault("event " + std::to_string(posted) + " came after " + std::to_string(ownEvents));
    }
  } else {
    ++foreignEvents;
  }
  const auto work = [] {
    Choices own(static_cast<std::uint64_t>(calls));
    own.OneIn(2) ? CallOnce(own) : ChangeRule(true, own.Between(0, 9));
  };
  if (!stopping) {
    switch (choices.Between(0, 60)) {
      case 0:
        Sleep(choices.Between(0, 20));
        break;
      case 1:
        WaitInNestedLoop(work);
        break;
      case 2:
        std::thread(work).join();
        break;
      case 3:
        work();
        break;
      default:
        break;
    }
  }
  isInside = false;
  if (number == kOwnEvent) {
    const std::lock_guard<std::mutex> lock(ownEventMutex);
    ++ownEvents;
    ownEventCame.notify_one();
  }
}

/// Every event that was posted arrives. The rest of one goes out with the next.
void AwaitEvents(int& posted) {
  const Task task("the events posted", Limit());
  std::unique_lock<std::mutex> lock(ownEventMutex);
  while (!TheRound().LosesBus() && !ownEventCame.wait_for(lock, std::chrono::milliseconds(20),
                                                          [&] { return ownEvents >= posted; })) {
    lock.unlock();
    Post(++posted);
    lock.lock();
  }
}

void PrintWork() {
  std::printf("%d calls, %d failures, %d rules, %d own events, %d others, %d cancelled, %d forks\n",
              calls.load(), failures.load(), rules.load(), ownEvents.load(), foreignEvents.load(),
              cancellations.load(), children.load());
  std::fflush(stdout);
}

}  // namespace

int main(int /*argc*/, char** argv) {
  std::printf("%d\n", getpid());
  const Round& round = TheRound(std::strtoull(argv[1], nullptr, 10));
  StartWatch();
  Perturb(round.seed, round.perturbation);
  EIIPCConnection& connection = *EIIPCConnection::GetInstance();
  connection.SetEventCallbackFunction(&OnEvent);
  connection.SetGMainLoop(nullptr);
  ECIPCClient::GetInstance();
  static auto* const loop = new MainLoopThread;
  static auto& threads = *new std::vector<std::thread>;
  const auto start = [&](bool is, void (*run)(int)) {
    if (is) {
      threads.emplace_back(run, static_cast<int>(threads.size()));
    }
  };
  for (int i = 0; i < round.callers && !round.inStep; ++i) {
    start(true, &RunCaller);
  }
  start(round.inStep, &RunSteps);
  // The sanitizers do not survive a cancellation within poll(), or lose track of its stack.
  start(round.cancels && !kSanitized, &RunCancellations);
  start(round.forks && kForksSafely, &RunForks);
  for (int i = 0; i < round.muteCalls; ++i) {
    start(true, &RunMuteCall);
  }
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
  AwaitEvents(posted);
  delete loop;
  PrintWork();
  return EXIT_SUCCESS;
}
