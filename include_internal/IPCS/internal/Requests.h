#ifndef IPCS_INTERNAL_REQUESTS_H
#define IPCS_INTERNAL_REQUESTS_H

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>

#include "Channel.h"

namespace esg::internal {

/// The calls of one channel that do not block. They share one queue with the blocking calls. The
/// default main context delivers their replies, one per iteration: no callback runs inside libdbus,
/// and no callback delays the arrival of another reply.
class Requests {
 public:
  /// Called at the end of a request.
  using Done = std::function<void(Channel::Outcome outcome, MessagePtr& reply)>;

  explicit Requests(Channel& channel);
  ~Requests();

  /// Like Channel::Call(), but does not wait. The default main context calls `done`, never inside
  /// this function, in the order in which the replies arrive, and also destroys it. A null message
  /// ends as NotSent. Never returns 0.
  std::uint64_t Start(MessagePtr message, Done done);
  /// Cancels a request: `done` is not called later, but may be running in another thread. Returns
  /// false if `done` has been called or the request was cancelled before.
  bool Cancel(std::uint64_t number);
  /// Ends delivery. The caller holds the channel's lock.
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
  // The channel's lock guards the following fields.
  SourcePtr m_source;
  bool m_sends = false;  // has to send calls that wait for their turn
  std::uint64_t m_lastNumber = 0;
  Table m_requests;
  std::list<std::uint64_t> m_replied;  // some may have been cancelled
  Table m_cancelled;                   // for the main context to destroy
};

}  // namespace esg::internal

#endif
