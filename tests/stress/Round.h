#ifndef TESTS_STRESS_ROUND_H
#define TESTS_STRESS_ROUND_H

#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

/// What the programs of the stress run have in common: each makes the same choices from a seed.
namespace stress {

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

struct Disturbance {
  enum Kind { PauseBus, PauseService, RestartService, StopBus, KillBus };
  Kind kind;
  int after;   ///< Milliseconds since the one before.
  int length;  ///< How long it lasts.
};

struct Round {
  explicit Round(std::uint64_t number);

  /// With many delays they would take longer than a call may.
  bool HasLargeCalls() const { return perturbation == 0 || perturbation >= 100; }
  bool Has(Disturbance::Kind kind) const;
  bool LosesBus() const { return Has(Disturbance::StopBus) || Has(Disturbance::KillBus); }
  bool LosesService() const { return Has(Disturbance::RestartService) || LosesBus(); }
  /// How long bus and service may stand still, in milliseconds.
  int Paused() const;
  std::string Text() const;

  const std::uint64_t seed;
  int callers;
  int milliseconds;  ///< How long callers begin calls.
  int perturbation;  ///< One step in so many is delayed; 0: none.
  bool inStep;       ///< All callers call at once, and only when all have their answers again.
  int muteCalls;     ///< Calls that nobody answers.
  bool cancels;
  bool forks;
  bool exits;  ///< In the middle of the calls.
  std::vector<Disturbance> disturbances;
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

}  // namespace stress

#endif
