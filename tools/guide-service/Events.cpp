#include "Events.h"

#include <IPCS/ESGMessageBuffer.h>

#include <charconv>
#include <sstream>

namespace esg::guide {

std::optional<EventOrder> ParseEventOrder(const std::string& line) {
  std::vector<int> numbers;
  std::istringstream words(line);
  for (std::string word; words >> word;) {
    int number = 0;
    const char* end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, number);
    if (error != std::errc() || stop != end) {
      return std::nullopt;
    }
    numbers.push_back(number);
  }
  if (numbers.size() != 1 && numbers.size() != 4) {
    return std::nullopt;
  }
  return EventOrder{numbers[0], {numbers.begin() + 1, numbers.end()}};
}

bool EventEmitter::Send(int number, ESGMessageBuffer& payload) {
  return m_Send({}, Event, number, payload);
}

bool EventEmitter::Send(const EventOrder& event) {
  ESGMessageBuffer payload;
  for (const int value : event.data) {
    payload.PushInt(value);
  }
  return Send(event.number, payload);
}

}  // namespace esg::guide
