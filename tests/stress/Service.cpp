#include "Service.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>

#include "Harness.h"
#include "RawPeer.h"
#include "Round.h"

namespace stress {
namespace {

using Clock = std::chrono::steady_clock;
using esg::internal::MessagePtr;

/// Answers that are held back, by the time at which they are due.
struct Held {
  std::mutex mutex;
  std::condition_variable more;
  std::multimap<Clock::time_point, MessagePtr> answers;
};

MessagePtr Answer(DBusMessage* call, Held& held) {
  const Body body = ReadBody(call);
  std::size_t size = 0;
  int delay = 0;
  std::istringstream(body.text) >> size >> delay;
  if (delay < 0) {
    return nullptr;
  }
  MessagePtr answer = MakeReply(call, 1, AnswerTo(body.text, body.bytes));
  if (delay == 0) {
    return answer;
  }
  const std::lock_guard<std::mutex> lock(held.mutex);
  held.answers.emplace(Clock::now() + std::chrono::milliseconds(delay), std::move(answer));
  held.more.notify_one();
  return nullptr;
}

/// The one before may still own the name for a moment.
std::unique_ptr<RawPeer> TakeName(const RawPeer::Handler& handler) {
  RawPeer watcher;
  watcher.AddMatch("type='signal',member='NameOwnerChanged',arg0='" + std::string(kService) + "'");
  for (;;) {
    try {
      return std::make_unique<RawPeer>(kService, handler);
    } catch (const std::runtime_error&) {
      if (watcher.NextSignal() == nullptr) {
        throw;
      }
    }
  }
}

}  // namespace

void Serve(std::uint64_t seed) {
  Held held;
  const auto peer = TakeName([&](DBusMessage* call) { return Answer(call, held); });
  std::puts("ready");
  std::fflush(stdout);
  Choices choices(seed);
  const int rate = choices.Between(1, 100);
  auto event = Clock::now();
  for (std::unique_lock<std::mutex> lock(held.mutex);;) {
    const auto now = Clock::now();
    if (event <= now) {
      peer->Send(MakeSignal("Event", choices.Between(0, 9), Integers({1, 2, 3})));
      event = now + std::chrono::milliseconds(choices.Between(1, 2 * rate));
    }
    const auto due = held.answers.upper_bound(now);
    for (auto each = held.answers.begin(); each != due; each = held.answers.erase(each)) {
      peer->Send(std::move(each->second));
    }
    held.more.wait_until(
        lock, held.answers.empty() ? event : std::min(event, held.answers.begin()->first));
  }
}

}  // namespace stress
