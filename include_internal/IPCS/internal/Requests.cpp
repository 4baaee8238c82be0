#include "IPCS/internal/Requests.h"

#include <utility>

namespace esg::internal {
namespace {

gboolean Dispatch(GSource* /*source*/, GSourceFunc callback, gpointer user) {
  return callback(user);
}

/// A source that has only a ready time.
GSource* NewSource() {
  static GSourceFuncs* const functions = [] {
    auto* made = new GSourceFuncs();
    made->dispatch = &Dispatch;
    return made;
  }();
  return g_source_new(functions, sizeof(GSource));
}

}  // namespace

struct Requests::Request : Channel::Caller {
  Request(MessagePtr owned, Done callback, std::uint64_t given, Requests& asked)
      : Caller(owned.get()),
        messageOwner(std::move(owned)),
        done(std::move(callback)),
        number(given),
        requests(asked) {}

  void OnDone() noexcept override {
    requests.m_replied.splice(requests.m_replied.end(), ticket);
    requests.Schedule();
  }
  bool MayTakeLong() const override { return !requests.m_replied.empty(); }

  const MessagePtr messageOwner;
  const Done done;
  const std::uint64_t number;
  Requests& requests;
  std::list<std::uint64_t> ticket{number};  // moves to m_replied without an allocation
};

Requests::Requests(Channel& channel) : m_channel(channel) {}

Requests::~Requests() = default;

std::uint64_t Requests::Start(MessagePtr message, Done done) {
  m_channel.Attach(nullptr);
  const Channel::Lock lock(m_channel);
  if (m_source == nullptr && !m_channel.m_isClosed) {
    m_source.reset(NewSource());
    g_source_set_callback(m_source.get(), &OnContext, m_channel.Connection(), nullptr);
    // A callback may run a nested main loop and wait for other requests there.
    g_source_set_can_recurse(m_source.get(), TRUE);
    g_source_attach(m_source.get(), nullptr);
  }
  const std::uint64_t number = ++m_lastNumber;
  auto owner = std::make_unique<Request>(std::move(message), std::move(done), number, *this);
  Request& request = *m_requests.emplace(number, std::move(owner)).first->second;
  if (request.message == nullptr || !m_channel.IsConnected()) {
    request.outcome =
        request.message == nullptr ? Channel::Outcome::NotSent : Channel::Outcome::NotConnected;
    m_channel.Finish(request);
  } else {
    m_channel.EndLate();
    m_channel.Enter(request);
  }
  Schedule();
  return number;
}

bool Requests::Cancel(std::uint64_t number) {
  Table::node_type request;  // destroyed after the lock: its callback belongs to the application
  const Channel::Lock lock(m_channel);
  request = m_requests.extract(number);
  if (request.empty()) {
    return false;
  }
  if (!request.mapped()->isDone) {
    m_channel.GiveUp(*request.mapped());
    m_sends = true;  // later, because the next one may be cancelled as well
  }
  if (g_main_context_is_owner(g_main_context_default()) == FALSE) {
    m_cancelled.insert(std::move(request));
  }
  Schedule();
  return true;
}

void Requests::Drop() {
  Table dropped[2];  // destroyed after the lock: their callbacks are the application's
  const Channel::Lock lock(m_channel);
  m_channel.SetLost();  // nothing refers to them any more
  dropped[0].swap(m_requests);
  dropped[1].swap(m_cancelled);
}

void Requests::Schedule() {
  if (m_source == nullptr) {
    return;
  }
  gint64 time = -1;
  if (m_sends || !m_replied.empty() || !m_cancelled.empty()) {
    time = 0;
  } else if (!m_requests.empty()) {  // no reply is there, and the first request is the oldest
    time = Channel::GLibTime(m_requests.begin()->second->deadline);
  }
  g_source_set_ready_time(m_source.get(), time);  // wakes the context if the time has changed
}

gboolean Requests::OnContext(gpointer connection) {
  const ChannelPtr channel = Channel::Of(static_cast<DBusConnection*>(connection));
  if (channel == nullptr || channel->IsForeign()) {
    return G_SOURCE_REMOVE;
  }
  Requests& self = channel->LateCalls();
  Channel::Lock lock(*channel);
  Table cancelled;
  cancelled.swap(self.m_cancelled);
  if (!cancelled.empty()) {
    lock.unlock();
    cancelled.clear();  // destroys the application's callbacks
    lock.lock();
  }
  self.m_sends = false;
  channel->EndLate();
  channel->WarnOnce(lock);
  if (self.m_source != nullptr) {
    self.Deliver(lock);
  }
  self.Schedule();
  return G_SOURCE_CONTINUE;
}

void Requests::Deliver(Channel::Lock& lock) {
  Table::node_type replied;
  while (replied.empty() && !m_replied.empty()) {
    replied = m_requests.extract(m_replied.front());
    m_replied.pop_front();
  }
  if (replied.empty()) {
    return;
  }
  Request& request = *replied.mapped();
  m_channel.GiveReason(request);
  lock.unlock();
  [&request]() noexcept { request.done(request.outcome, request.reply); }();
  replied = {};  // destroys its callback
  lock.lock();
}

}  // namespace esg::internal
