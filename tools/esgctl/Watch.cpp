// watch, emit, --follow: events

#include <ESGEMSProxy.h>
#include <IESGService.h>
#include <IPCS/ECIPCBroadcaster.h>
#include <IPCS/EIIPCConnection.h>
#include <IPCS/ESGMessageBuffer.h>
#include <glib-unix.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <exception>

#include "Commands.h"

namespace esgctl {
namespace {

/// The event that announces a new guide.
constexpr int kGuideChanged = 5;
constexpr unsigned int kLongestNap = 60;  // seconds

using Parameters = std::array<int, 3>;

std::string EventLine(int event, const Parameters& parameters, bool json) {
  const Seconds now = PresentTime();
  if (json) {
    Json::Value line;
    line["event"] = event;
    line["time"] = static_cast<Json::Int64>(now);
    for (const int parameter : parameters) {
      line["params"].append(parameter);
    }
    return JsonText(line, Layout::OneLine);
  }
  std::string line = FormatTime(now, "%Y-%m-%d %H:%M:%S  ") + std::to_string(event) + ' ';
  for (const int parameter : parameters) {
    line += ' ' + std::to_string(parameter);
  }
  return line + '\n';
}

/// Waits for events until SIGINT or SIGTERM arrives, the reader of the output goes, or the bus is
/// lost. Continues when the service stops and starts again.
class Watcher {
 public:
  /// Called for each event. What it throws ends the waiting.
  using Handler = std::function<void(Watcher& self, int event, const ESGEventData& data)>;

  Watcher(esg::tools::Bus& bus, const std::vector<int>& events, const Handler& handler) {
    // The library reports short payloads on standard output, between the lines that scripts read.
    const int output = KeepOutput();
    const GUnixFDSourceFunc outputGone = [](gint, GIOCondition, gpointer watcher) {
      return Interrupted(watcher);
    };
    m_sources = {
        g_unix_signal_add(SIGINT, Interrupted, this), g_unix_signal_add(SIGTERM, Interrupted, this),
        g_unix_fd_add(output, static_cast<GIOCondition>(G_IO_ERR | G_IO_HUP), outputGone, this)};
    bus.OnLost([this] {
      End(std::make_exception_ptr(Failure(
          kAway, "the system bus closed the connection; run esgctl again when the bus is back")));
    });
    m_nameWatch = g_bus_watch_name_on_connection(
        bus.Connection(), kESGServiceName, G_BUS_NAME_WATCHER_FLAGS_NONE,
        [](GDBusConnection*, const char*, const char*, gpointer watcher) {
          static_cast<Watcher*>(watcher)->SetService(true);
        },
        [](GDBusConnection*, const char*, gpointer watcher) {
          static_cast<Watcher*>(watcher)->SetService(false);
        },
        this, nullptr);
    IESGEMS* const proxy = ESGEMSProxy::GetInstance(
        EIIPCConnection::GetInstance(), [this, handler](int event, const ESGEventData& data) {
          try {
            if (!m_ended) {
              handler(*this, event, data);
            }
          } catch (...) {
            End(std::current_exception());
          }
          return 0;
        });
    for (const int event : events) {
      if (proxy->SubscribeSignal(event) != 0) {
        throw Failure(kAway, "The system bus refuses the subscription to event " +
                                 std::to_string(event) + ".");
      }
    }
  }
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;
  ~Watcher() {
    End();
    g_bus_unwatch_name(m_nameWatch);
    std::for_each(m_sources.begin(), m_sources.end(), g_source_remove);
  }

  /// Waits for a call of Wake or End, at most `seconds`. False after End, or raises its failure.
  bool Wait(unsigned int seconds = kLongestNap) {
    const GSourceFunc wake = [](gpointer watcher) -> gboolean {
      static_cast<Watcher*>(watcher)->Wake();
      return G_SOURCE_CONTINUE;
    };
    const guint timer = g_timeout_add_seconds(seconds, wake, this);
    while (!m_ended && !m_awake) {
      g_main_context_iteration(nullptr, TRUE);
    }
    g_source_remove(timer);
    m_awake = false;
    if (m_failure) {
      std::rethrow_exception(m_failure);
    }
    return !m_ended;
  }
  void Wake() { m_awake = true; }
  void End(const std::exception_ptr& failure = nullptr) {
    if (!m_ended) {
      m_failure = failure;
    }
    m_ended = true;
    if (onEnd) {
      onEnd();
    }
  }

  /// Whether the service owns its name, and has done so since the last call of Wait.
  bool IsServiceThere() const {
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
    return m_service && !m_awake && !m_ended;
  }

  std::function<void()> onEnd;

 private:
  static gboolean Interrupted(gpointer watcher) {
    static_cast<Watcher*>(watcher)->End();
    return G_SOURCE_CONTINUE;
  }

  void SetService(bool there) {
    if (there != m_service && !m_ended) {
      Say(there ? "the guide service is running"
                : "the guide service is not running; still watching");
      m_awake = true;
    }
    m_service = there;
  }

  std::vector<unsigned int> m_sources;
  unsigned int m_nameWatch = 0;
  std::exception_ptr m_failure;
  bool m_ended = false;
  bool m_awake = false;
  bool m_service = true;
};

}  // namespace

void Follow(Guide& guide, const std::function<Outcome()>& look) {
  Watcher watcher(guide.Bus(), {kGuideChanged},
                  [](Watcher& self, int, const ESGEventData&) { self.Wake(); });
  watcher.onEnd = [&guide] { guide.Stop(); };
  std::string shown;
  unsigned int nap = kLongestNap;
  do {
    try {
      const Outcome outcome = look();
      const std::string& text = outcome.text.empty() ? outcome.nothing : outcome.text;
      if (text != shown) {
        outcome.text.empty() ? Say(text) : Print(text);
        shown = text;
      }
      const Seconds left = outcome.changes - PresentTime();
      nap = left > 0 && left < kLongestNap ? static_cast<unsigned int>(left) : kLongestNap;
    } catch (const Failure& failure) {
      if (failure.Status() != kAway) {
        throw;
      }
      // The watcher reports that the service has stopped, and wakes this loop when it is back.
      if (watcher.IsServiceThere() && failure.what() != shown) {
        shown = failure.what();
        Say(shown);
      }
    }
  } while (watcher.Wait(nap));
}

void RunWatch(Session& session) {
  const Request& request = session.request;
  const auto bus = ConnectToBus();
  unsigned int seen = 0;
  const auto show = [&](Watcher& self, int event, const ESGEventData& data) {
    Print(EventLine(event, {data.m_param1, data.m_param2, data.m_param3}, request.json));
    if (++seen == request.count) {
      self.End();
    }
  };
  Watcher watcher(*bus, request.events, show);
  Say("watching");
  while (watcher.Wait()) {
  }
}

void RunEmit(Session& session) {
  const Request& request = session.request;
  if (request.numbers.size() > 3) {
    throw Failure(kUsage, "An event carries at most three integers.");
  }
  const auto bus = ConnectToBus();  // the emitter would wait a minute for a bus
  ESGMessageBuffer payload;
  // As a receiver reads them: three times -1 for an empty event, and 0 for a missing integer.
  Parameters carried;
  carried.fill(request.numbers.empty() ? -1 : 0);
  std::copy(request.numbers.begin(), request.numbers.end(), carried.begin());
  for (const int number : request.numbers) {
    payload.PushInt(number);
  }
  static ECIPCBroadcaster emitter;  // its connection stays when it is destroyed
  if (!emitter.Send(request.events.front(), payload)) {
    throw Failure(kOther, "The event cannot be sent; --verbose shows why.");
  }
  if (request.json) {
    Print(EventLine(request.events.front(), carried, true));
  }
}

}  // namespace esgctl
