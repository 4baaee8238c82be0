#ifndef TESTS_STRESS_H
#define TESTS_STRESS_H

#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "Client.h"
#include "Sanitizers.h"

/// What the programs of the stress run have in common: each makes the same choices from a seed.
namespace stress {

using namespace esg::test;

class Choices {
 public:
  explicit Choices(std::uint64_t seed) : m_engine(seed) {}
  int Between(int least, int most) {
    return least + static_cast<int>(m_engine() % static_cast<std::uint64_t>(most - least + 1));
  }
  bool OneIn(int count) { return Between(1, count) == 1; }

 private:
  std::mt19937_64 m_engine;
};

enum Kind { kPauseBus, kPauseService, kRestartService, kStopBus, kKillBus };
constexpr const char* kKinds[] = {"pause bus", "pause service", "restart service", "stop bus",
                                  "kill bus"};
struct Disturbance {
  Kind kind;
  int after;   ///< Milliseconds since the one before.
  int length;  ///< How long it lasts.
};

struct Round {
  explicit Round(std::uint64_t number) : seed(number) {
    Choices choices(seed);
    const int most[] = {3, 8, 64, 64};
    callers = choices.Between(2, most[choices.Between(0, 3)]);
    milliseconds = choices.Between(1500, 5000);
    const int perturbations[] = {0, 1000, 100, 10};
    perturbation = perturbations[choices.Between(0, 3)];
    inStep = choices.OneIn(3);
    muteCalls = !inStep && choices.OneIn(20) ? choices.Between(1, 20) : 0;
    cancels = !inStep && choices.OneIn(3);
    forks = choices.OneIn(3);
    exits = choices.OneIn(3);
    const int kinds = choices.Between(0, 4);  // 0: a quiet round
    for (int past = 0; kinds > 0 && past < milliseconds && !losesBus;) {
      const auto kind = static_cast<Kind>(choices.Between(0, kinds == 1 ? 1 : kinds));
      const int after = choices.Between(0, 1000);
      const int length = choices.OneIn(4) ? choices.Between(100, 2000) : choices.Between(0, 100);
      disturbances.push_back({kind, after, length});
      past += after + length;
      paused += length;
      losesBus = kind >= kStopBus;
      losesService = losesService || kind >= kRestartService;
      milliseconds = losesBus ? past + 500 : milliseconds;
    }
  }

  /// With many delays they would take longer than a call may.
  bool HasLargeCalls() const { return perturbation == 0 || perturbation >= 100; }

  std::string Text() const {
    std::string text = "seed " + std::to_string(seed) + ": " + std::to_string(callers) +
                       " callers, " + std::to_string(milliseconds) + " ms, perturbed 1/" +
                       std::to_string(perturbation) + (inStep ? ", in step" : "") +
                       (cancels ? ", cancels" : "") + (forks ? ", forks" : "") +
                       (exits ? ", exits" : "");
    for (const Disturbance& each : disturbances) {
      text += std::string(", ") + kKinds[each.kind];
    }
    return text;
  }

  const std::uint64_t seed;
  int callers;
  int milliseconds;  ///< How long callers start calls.
  int perturbation;  ///< One step in so many is delayed; 0: none.
  bool inStep;       ///< All callers call at once, and only when all have their answers again.
  int muteCalls;     ///< Calls that nobody answers.
  bool cancels;
  bool forks;
  bool exits;  ///< In the middle of the calls.
  std::vector<Disturbance> disturbances;
  int paused = 0;  ///< How long bus and service may stand still, in milliseconds.
  bool losesBus = false;
  bool losesService = false;
};

/// The bytes that belong to a number.
inline std::string BytesOf(std::uint64_t number, std::size_t size) {
  std::string bytes(size + sizeof number, '\0');
  for (std::size_t i = 0; i < size; i += sizeof number) {
    number = number * 6364136223846793005U + 1442695040888963407U;
    std::memcpy(&bytes[i], &number, sizeof number);
  }
  bytes.resize(size);
  return bytes;
}

/// What the service answers. `method` is the size of the answer, the milliseconds before it, below
/// 0 for no answer, and the number of the call.
inline std::string AnswerTo(const std::string& method, const std::string& request) {
  const std::hash<std::string> hash;
  return BytesOf(hash(method) ^ hash(request), std::stoul(method));
}

/// From now on threads are delayed at random, at one in `rate` steps that they take with locks,
/// conditions and descriptors; at none where it is 0.
void Perturb(std::uint64_t seed, int rate);
/// From now on this thread takes so long to read an answer, which libdbus keeps meanwhile.
void ReadSlowly(int milliseconds);

/// From now on a crash and a task that takes too long are faults.
void StartWatch();
/// Tells the supervisor, and leaves the process as it is for it to look at `process`.
[[noreturn]] void Fault(const std::string& text, pid_t process = getpid());

/// The error that this thread has logged last; and forgets it.
std::string_view LastError();
void ForgetError();

/// What has to be over within a time, on this thread or in another process.
class Task {
 public:
  Task(std::string what, long limitMilliseconds, pid_t process = getpid());
  ~Task();
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  long Milliseconds() const { return m_stopwatch.Milliseconds(); }
  long Rest() const { return m_limit - Milliseconds(); }
  std::string Text() const {
    return m_what + ", after " + std::to_string(Milliseconds()) + " ms of " +
           std::to_string(m_limit);
  }
  pid_t Process() const { return m_process; }

 private:
  const std::string m_what;
  const long m_limit;
  const pid_t m_process;
  const Stopwatch m_stopwatch;
};

}  // namespace stress

#endif
