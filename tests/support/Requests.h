#ifndef TESTS_REQUESTS_H
#define TESTS_REQUESTS_H

#include <thread>

#include "BusTest.h"
#include "ESGAsync.h"
#include "IESGService.h"

/// Requests, and a guide service for them.
namespace esg::test {

/// How many calls may be outstanding.
inline constexpr int kMaxOutstanding = 120;

/// The title of each programme is the requested id. For "large" it is 20 MiB.
struct GuideService : Service {
  GuideService() : Service(&ShowId, kESGServiceName) {}
  static MessagePtr ShowId(DBusMessage* call, const Body& body) {
    const std::string key = R"("global_service_id" : ")";
    const std::size_t found = body.bytes.find(key);
    const std::size_t start = found == std::string::npos ? body.bytes.size() : found + key.size();
    const std::string id = body.bytes.substr(start, body.bytes.find('"', start) - start);
    const std::string title = id == "large" ? std::string(20U << 20U, 'x') : id;
    return MakeReply(call, 1, R"({"ret":true,"title":")" + title + "\"}");
  }
};

/// The titles of the replies, or the reasons of failures as numbers, in order of delivery.
using Titles = std::vector<std::string>;
inline Titles results;
inline const std::thread::id kMainThread = std::this_thread::get_id();

/// Counts the callbacks that exist. All must be destroyed on the main thread.
struct Trace {
  Trace() { ++count; }
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;
  ~Trace() {
    EXPECT_EQ(std::this_thread::get_id(), kMainThread);
    --count;
  }
  inline static std::atomic<int> count{0};
};

inline ESGAsync::Identifier Ask(
    const std::string& id, std::function<void()> then = [] {}) {
  auto trace = std::make_shared<Trace>();
  return ESGAsync::GetPresentProgram(id, [trace = std::move(trace), then = std::move(then)](
                                             const ESGFailure& failure,
                                             const FCESGProgramInfo& program) {
    EXPECT_EQ(std::this_thread::get_id(), kMainThread);
    results.push_back(failure ? std::to_string(static_cast<int>(failure.reason)) : program.Title());
    then();
  });
}
inline void Ask(int count, const std::string& id) {
  for (int i = 0; i < count; ++i) {
    Ask(id);
  }
}

inline void IterateUntil(int count) {
  IterateUntil([count] { return results.size() >= static_cast<std::size_t>(count); });
}

}  // namespace esg::test

#endif
