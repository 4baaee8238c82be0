#include "Round.h"

#include <algorithm>
#include <numeric>

namespace stress {

Round::Round(std::uint64_t number) : seed(number) {
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
  int past = 0;
  while (kinds > 0 && past < milliseconds && !LosesBus()) {
    Disturbance next{};
    next.kind = static_cast<Disturbance::Kind>(choices.Between(0, kinds == 1 ? 1 : kinds));
    next.after = choices.Between(0, 1000);
    next.length = choices.OneIn(4) ? choices.Between(100, 2000) : choices.Between(0, 100);
    disturbances.push_back(next);
    past += next.after + next.length;
    if (LosesBus()) {
      milliseconds = past + 500;
    }
  }
}

bool Round::Has(Disturbance::Kind kind) const {
  return std::any_of(disturbances.begin(), disturbances.end(),
                     [kind](const Disturbance& each) { return each.kind == kind; });
}

int Round::Paused() const {
  return std::accumulate(disturbances.begin(), disturbances.end(), 0,
                         [](int sum, const Disturbance& each) { return sum + each.length; });
}

std::string Round::Text() const {
  std::string text = "seed " + std::to_string(seed) + ": " + std::to_string(callers) +
                     " callers, " + std::to_string(milliseconds) + " ms";
  const auto add = [&text](bool is, const std::string& what) { text += is ? ", " + what : ""; };
  add(perturbation > 0, "perturbed 1/" + std::to_string(perturbation));
  add(inStep, "in step");
  add(muteCalls > 0, std::to_string(muteCalls) + " without an answer");
  add(cancels, "cancels");
  add(forks, "forks");
  add(exits, "exits");
  const char* const names[] = {"pauses bus", "pauses service", "restarts service", "stops bus",
                               "kills bus"};
  for (int kind = Disturbance::PauseBus; kind <= Disturbance::KillBus; ++kind) {
    const auto count = std::count_if(disturbances.begin(), disturbances.end(),
                                     [kind](const Disturbance& each) { return each.kind == kind; });
    add(count > 0, std::string(names[kind]) + " " + std::to_string(count) + "x");
  }
  return text;
}

}  // namespace stress
