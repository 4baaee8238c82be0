// Puts the library under stress for so many seconds: esg-stress SECONDS SEED. Each round has a
// service and a worker process of its own; the first fault ends the run with the stacks of all
// threads.

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "ChildProgram.h"
#include "PrivateBus.h"
#include "Round.h"
#include "Service.h"

namespace {

using namespace stress;
using std::chrono::milliseconds;

/// The bus and the service, which come and go.
class Stage {
 public:
  /// Both are there, the service a new one.
  void Set(const Round& round) {
    m_seed = std::to_string(round.seed);
    m_service.reset();
    if (!m_bus.Runs()) {
      m_bus.Start();
    }
    StartService();
  }

  /// `wait` says whether to go on after so long.
  template <typename Wait>
  void Disturb(const Disturbance& disturbance, Wait wait) {
    const milliseconds length(disturbance.length);
    switch (disturbance.kind) {
      case Disturbance::PauseBus:
        m_bus.Pause();
        wait(length);
        m_bus.Resume();
        break;
      case Disturbance::PauseService:
        m_service->Signal(SIGSTOP);
        wait(length);
        m_service->Signal(SIGCONT);
        break;
      case Disturbance::RestartService:
        m_service.reset();
        wait(length);
        StartService();
        break;
      case Disturbance::StopBus:
        m_bus.Stop();
        break;
      case Disturbance::KillBus:
        m_bus.Kill();
        break;
    }
  }

 private:
  void StartService() {
    m_service = std::make_unique<ChildProgram>(
        std::vector<std::string>{"/proc/self/exe", "--service", m_seed});
    if (!m_service->ReadLine()) {
      throw std::runtime_error("the service does not start");
    }
  }

  PrivateBus m_bus;
  std::string m_seed;
  std::unique_ptr<ChildProgram> m_service;
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
  stage.Set(round);
  ChildProgram worker({STRESS_WORKER, std::to_string(round.seed)});
  const std::string process = worker.ReadLine().value_or("0");
  worker.ReadLine();  // it is ready
  auto watching = std::async(std::launch::async, [&] { return Watch(worker, process); });
  const auto wait = [&](milliseconds time) {
    return watching.wait_for(time) == std::future_status::timeout;
  };
  for (const Disturbance& disturbance : round.disturbances) {
    if (!wait(milliseconds(disturbance.after))) {
      break;
    }
    stage.Disturb(disturbance, wait);
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
