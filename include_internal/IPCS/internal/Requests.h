#ifndef IPCS_INTERNAL_REQUESTS_H
#define IPCS_INTERNAL_REQUESTS_H

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>

#include "Channel.h"

namespace esg::internal {

/// The calls of one channel that do not block. They wait their turn among those that do. The
/// default main context delivers their answers, one a turn, so no callback runs inside libdbus, and
/// no answer waits for one.
class Requests {
 public:
  /// What a request ends with.
  using Done = std::function<void(Channel::Outcome outcome, MessagePtr& reply)>;

  explicit Requests(Channel& channel);
  ~Requests();

  /// The same as Channel::Call() without waiting. `done` is called by the default main context,
  /// never inside this call, in the order in which the answers arrive; it is destroyed there as
  /// well. Null in place of the message ends as NotSent. The number that is returned is never 0.
  std::uint64_t Ask(MessagePtr message, Done done);
  /// Takes a request back: `done` is not called any more, but may be running in another thread.
  /// false when it was called, or taken back, before.
  bool Cancel(std::uint64_t number);
  /// Nothing is delivered any more. With the channel's lock.
  void Close() { m_source.reset(); }
  /// Destroys all requests, and the application's callbacks with them. Without any lock.
  void Drop();

 private:
  struct Request;
  using Table = std::map<std::uint64_t, std::unique_ptr<Request>>;

  void Schedule();
  static gboolean OnContext(gpointer connection);
  void Deliver(Channel::Lock& lock);

  Channel& m_channel;
  // The channel's lock guards what follows.
  SourcePtr m_source;
  bool m_sends = false;  // what waits for room
  std::uint64_t m_lastNumber = 0;
  Table m_requests;
  std::list<std::uint64_t> m_answered;  // some may be taken back
  Table m_takenBack;                    // for the main context to destroy
};

}  // namespace esg::internal

#endif
