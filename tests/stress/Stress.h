#ifndef TESTS_STRESS_H
#define TESTS_STRESS_H

#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

/// What the programs of the stress run share. Each makes the same choices from a seed.
namespace esg::test::stress {

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
  int after;   ///< Milliseconds since the previous one.
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
    silentCalls = !inStep && choices.OneIn(20) ? choices.Between(1, 20) : 0;
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

  /// With many delays, large calls would exceed the time limit.
  bool HasLargeCalls() const { return perturbation == 0 || perturbation >= 100; }

  const std::uint64_t seed;
  int callers;
  int milliseconds;  ///< How long callers start calls.
  int perturbation;  ///< One step in so many is delayed. 0: none.
  bool inStep;       ///< All callers call at once, and again only when all have their replies.
  int silentCalls;   ///< Calls without a reply.
  bool cancels;
  bool forks;
  bool exits;  ///< In the middle of the calls.
  std::vector<Disturbance> disturbances;
  int paused = 0;  ///< How long bus and service may be stopped, in milliseconds.
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

/// What the service replies. `method` is the size of the reply, the milliseconds before it, below 0
/// for no reply, and the number of the call.
inline std::string ReplyTo(const std::string& method, const std::string& request) {
  const std::hash<std::string> hash;
  return BytesOf(hash(method) ^ hash(request), std::stoul(method));
}

/// From now on, one in `rate` steps that threads take with locks, conditions and descriptors is
/// delayed at random. 0: none.
void Perturb(std::uint64_t seed, int rate);
/// From now on, this thread takes so long to read a reply. libdbus keeps the reply meanwhile.
void ReadSlowly(int milliseconds);

}  // namespace esg::test::stress

#endif
