// Puts the library under stress for so many seconds: esg-client-stress SECONDS SEED. Each round has
// its own service and worker processes. The first fault ends the run.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <sstream>

#include "PrivateBus.h"
#include "Service.h"
#include "Stress.h"

namespace {

using namespace esg::test;
using namespace esg::test::stress;
using std::chrono::milliseconds;

/// Replies to calls, and sends events, until the process is killed.
[[noreturn]] void Serve(std::uint64_t seed) {
  static std::promise<RawPeer*> started;
  static const std::shared_future<RawPeer*> self = started.get_future();
  const auto serve = [](DBusMessage* call) -> MessagePtr {
    const Body body = ReadBody(call);
    std::size_t size = 0;
    int delay = 0;
    std::istringstream(body.text) >> size >> delay;
    MessagePtr reply = MakeReply(call, 1, ReplyTo(body.text, body.bytes));
    if (delay > 0) {
      std::thread([delay, late = std::move(reply)]() mutable {
        std::this_thread::sleep_for(milliseconds(delay));
        self.get()->Send(std::move(late));
      }).detach();
    }
    return delay == 0 ? std::move(reply) : nullptr;
  };
  std::unique_ptr<RawPeer> peer;
  while (peer == nullptr) {
    try {
      peer = std::make_unique<RawPeer>(kService, serve);
    } catch (const std::runtime_error&) {  // the previous service may still have the name
    }
  }
  started.set_value(peer.get());
  std::puts("ready");
  std::fflush(stdout);
  Choices choices(seed);
  for (const int rate = choices.Between(1, 100);;) {
    peer->Send(MakeSignal("Event", choices.Between(0, 9), Integers({1, 2, 3})));
    std::this_thread::sleep_for(milliseconds(choices.Between(1, 2 * rate)));
  }
}

std::unique_ptr<ChildProgram> StartService(const Round& round) {
  const std::vector<std::string> command = {"/proc/self/exe", "--service",
                                            std::to_string(round.seed)};
  auto service = std::make_unique<ChildProgram>(command);
  if (!service->ReadLine()) {
    throw std::runtime_error("the service does not start");
  }
  return service;
}

/// Returns what the worker writes last: the number of its calls. Throws if there is a fault, which
/// the worker describes.
long Play(const Round& round) {
  PrivateBus bus;
  bus.Start();
  auto service = StartService(round);
  ChildProgram worker({STRESS_WORKER, std::to_string(round.seed)});
  worker.ReadLine();  // it is ready
  auto watching = std::async(std::launch::async, [&worker] {
    std::string last;
    while (const auto line = worker.ReadLine()) {
      last = *line;
      std::puts(last.c_str());
    }
    return last;
  });
  const auto wait = [&](int time) { watching.wait_for(milliseconds(time)); };
  for (const auto& [kind, after, length] : round.disturbances) {
    wait(after);
    if (kind == kPauseBus) {
      bus.Pause();
      wait(length);
      bus.Resume();
    } else if (kind == kPauseService) {
      service->Signal(SIGSTOP);
      wait(length);
      service->Signal(SIGCONT);
    } else if (kind == kRestartService) {
      service.reset();
      wait(length);
      service = StartService(round);
    } else {
      kind == kStopBus ? bus.Stop() : bus.Kill();
    }
  }
  const std::string last = watching.get();
  if (const int status = worker.Wait()) {
    throw std::runtime_error("the worker ended with " + std::to_string(status));
  }
  return std::stol(last);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: esg-client-stress SECONDS SEED\n", stderr);
    return EXIT_FAILURE;
  }
  const std::string first = argv[1];
  std::uint64_t seed = std::strtoull(argv[2], nullptr, 10);
  if (first == "--service") {
    Serve(seed);
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const Stopwatch stopwatch;
  long calls = 0;
  do {
    const Round round(seed++);
    std::printf("seed %ju, %d callers", static_cast<std::uintmax_t>(round.seed), round.callers);
    for (const Disturbance& each : round.disturbances) {
      std::printf(", %s", kKinds[each.kind]);
    }
    std::puts(":");
    try {
      calls += Play(round);
    } catch (const std::exception& fault) {
      std::printf("Fault: %s\n", fault.what());
      return EXIT_FAILURE;
    }
  } while (stopwatch.Milliseconds() < std::stol(first) * 1000);
  std::printf("%ld calls, no fault.\n", calls);
  return EXIT_SUCCESS;
}
