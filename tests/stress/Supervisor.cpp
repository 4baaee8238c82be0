// Puts the library under stress for so many seconds: esg-stress SECONDS SEED. Each round has a
// service and a worker process of its own; the first fault ends the run with the stacks of all
// threads.

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <sstream>

#include "ChildProgram.h"
#include "PrivateBus.h"
#include "Stress.h"

namespace {

using namespace stress;
using std::chrono::milliseconds;

/// Answers calls, and sends events, until the process is killed.
[[noreturn]] void Serve(std::uint64_t seed) {
  using Clock = std::chrono::steady_clock;
  std::mutex mutex;
  std::condition_variable more;
  std::multimap<Clock::time_point, MessagePtr> held;  // answers, by the time at which they are due
  const auto answer = [&](DBusMessage* call) {
    const Body body = ReadBody(call);
    std::size_t size = 0;
    int delay = 0;
    std::istringstream(body.text) >> size >> delay;
    MessagePtr reply = delay >= 0 ? MakeReply(call, 1, AnswerTo(body.text, body.bytes)) : nullptr;
    if (delay > 0) {
      const std::lock_guard<std::mutex> lock(mutex);
      held.emplace(Clock::now() + milliseconds(delay), std::move(reply));
      more.notify_one();
      return MessagePtr();
    }
    return reply;
  };
  // The one before may still own the name for a moment.
  RawPeer watcher;
  std::unique_ptr<RawPeer> peer;
  while (peer == nullptr) {
    try {
      peer = std::make_unique<RawPeer>(kService, answer);
    } catch (const std::runtime_error&) {
      watcher.Sync();
    }
  }
  std::puts("ready");
  std::fflush(stdout);
  Choices choices(seed);
  const int rate = choices.Between(1, 100);
  auto event = Clock::now();
  for (std::unique_lock<std::mutex> lock(mutex);;) {
    const auto now = Clock::now();
    if (event <= now) {
      peer->Send(MakeSignal("Event", choices.Between(0, 9), Integers({1, 2, 3})));
      event = now + milliseconds(choices.Between(1, 2 * rate));
    }
    const auto due = held.upper_bound(now);
    for (auto each = held.begin(); each != due; each = held.erase(each)) {
      peer->Send(std::move(each->second));
    }
    more.wait_until(lock, held.empty() ? event : std::min(event, held.begin()->first));
  }
}

/// The bus and the service, which come and go.
struct Stage {
  void StartService(const Round& round) {
    service = std::make_unique<ChildProgram>(
        std::vector<std::string>{"/proc/self/exe", "--service", std::to_string(round.seed)});
    if (!service->ReadLine()) {
      throw std::runtime_error("the service does not start");
    }
  }

  PrivateBus bus;
  std::unique_ptr<ChildProgram> service;
};

/// Whether a child ends soon; it stays a zombie.
bool Ends(pid_t process) {
  constexpr int kMilliseconds = 10000;
  pollfd end{static_cast<int>(syscall(SYS_pidfd_open, process, 0)), POLLIN, 0};
  const bool ends = poll(&end, 1, kMilliseconds) == 1;
  close(end.fd);
  return ends;
}

void ShowStacks(const std::string& process) {
  const std::string command = "gdb -nx -batch -iex 'set debuginfod enabled off' -p " + process +
                              " -ex 'thread apply all backtrace' 2>&1";
  std::fflush(stdout);
  if (std::system(command.c_str()) != 0) {
    std::puts("There are no stacks without gdb.");
  }
}

/// What the worker says last, or throws what is wrong with it.
std::string Watch(ChildProgram& worker, const std::string& process) {
  std::string said = "nothing";
  while (const auto line = worker.ReadLine()) {
    said = *line;
    if (said.rfind("FAULT ", 0) == 0) {
      const std::string faulty = said.substr(6, said.find(' ', 6) - 6);
      ShowStacks(faulty);
      kill(std::stoi(faulty), SIGKILL);  // it may be a child of the worker
      throw std::runtime_error(said);
    }
  }
  if (!Ends(std::stoi(process))) {
    ShowStacks(process);
    throw std::runtime_error("the worker does not end");
  }
  if (const int status = worker.Wait()) {
    throw std::runtime_error("the worker ended with " + std::to_string(status));
  }
  return said;
}

std::string Play(const Round& round, Stage& stage) {
  stage.service.reset();
  stage.bus.Start();
  stage.StartService(round);
  ChildProgram worker({STRESS_WORKER, std::to_string(round.seed)});
  const std::string process = worker.ReadLine().value_or("0");
  worker.ReadLine();  // it is ready
  auto watching = std::async(std::launch::async, [&] { return Watch(worker, process); });
  const auto wait = [&](int time) {
    return watching.wait_for(milliseconds(time)) == std::future_status::timeout;
  };
  for (const auto& [kind, after, length] : round.disturbances) {
    if (!wait(after)) {
      break;
    }
    if (kind >= kStopBus) {
      kind == kStopBus ? stage.bus.Stop() : stage.bus.Kill();
    } else if (kind == kRestartService) {
      stage.service.reset();
      wait(length);
      stage.StartService(round);
    } else {
      kind == kPauseBus ? stage.bus.Pause() : stage.service->Signal(SIGSTOP);
      wait(length);
      kind == kPauseBus ? stage.bus.Resume() : stage.service->Signal(SIGCONT);
    }
  }
  return watching.get();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: esg-stress SECONDS SEED\n", stderr);
    return EXIT_FAILURE;
  }
  const std::string first = argv[1];
  std::uint64_t seed = std::strtoull(argv[2], nullptr, 10);
  if (first == "--service") {
    Serve(seed);
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(std::stoi(first));
  Stage stage;
  int rounds = 0;
  long calls = 0;
  do {
    const Round round(seed++);
    try {
      const std::string work = Play(round, stage);
      std::printf("%s: %s\n", round.Text().c_str(), work.c_str());
      calls += std::stol(work);
    } catch (const std::exception& fault) {
      std::printf("Round %d, %s\n%s\n", rounds + 1, round.Text().c_str(), fault.what());
      return EXIT_FAILURE;
    }
    ++rounds;
  } while (std::chrono::steady_clock::now() < end);
  std::printf("%d rounds, %ld calls, no fault.\n", rounds, calls);
  return EXIT_SUCCESS;
}
