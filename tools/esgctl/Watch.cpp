#include "Watch.h"

#include <ESGEMSProxy.h>
#include <IESGService.h>
#include <IPCS/ECIPCBroadcaster.h>
#include <IPCS/EIIPCConnection.h>
#include <IPCS/ESGMessageBuffer.h>
#include <glib-unix.h>
#include <json/value.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <utility>

#include "Commands.h"
#include "Json.h"
#include "Text.h"

namespace esgctl {
namespace {

/// The event that announces a new guide.
constexpr int kGuideChanged = 5;
constexpr Seconds kLongestNap = 60;

void Say(const std::string& line) { esg::tools::Report("esgctl", line); }

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

}  // namespace

Watcher::Watcher(esg::tools::Bus& bus, const std::vector<int>& events, Handler handler)
    : m_handler(std::move(handler)) {
  // The library reports short payloads on standard output, between the lines that scripts read.
  const int output = KeepOutput();
  const GSourceFunc end = [](gpointer watcher) -> gboolean {
    static_cast<Watcher*>(watcher)->End(kFound);
    return G_SOURCE_CONTINUE;
  };
  const GUnixFDSourceFunc outputGone = [](gint, GIOCondition, gpointer watcher) -> gboolean {
    static_cast<Watcher*>(watcher)->End(kFound);
    return G_SOURCE_CONTINUE;
  };
  m_sources = {
      g_unix_signal_add(SIGINT, end, this), g_unix_signal_add(SIGTERM, end, this),
      g_unix_fd_add(output, static_cast<GIOCondition>(G_IO_ERR | G_IO_HUP), outputGone, this)};
  bus.OnLost([this] {
    Say("the system bus closed the connection; run esgctl again when the bus is back");
    End(kAway);
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
  IESGEMS* const proxy = ESGEMSProxy::GetInstance(EIIPCConnection::GetInstance(),
                                                  [this](int event, const ESGEventData& data) {
                                                    if (!m_ended) {
                                                      m_handler(*this, event, data);
                                                    }
                                                    return 0;
                                                  });
  for (const int event : events) {
    if (proxy->SubscribeSignal(event) != 0) {
      throw Failure(
          kAway, "The system bus refuses the subscription to event " + std::to_string(event) + ".");
    }
  }
}

Watcher::~Watcher() {
  m_ended = true;
  g_bus_unwatch_name(m_nameWatch);
  std::for_each(m_sources.begin(), m_sources.end(), g_source_remove);
}

void Watcher::SetService(bool there) {
  if (there != m_service && !m_ended) {
    Say(there ? "the guide service is running"
              : "the guide service is not running; still watching");
    m_awake = true;
  }
  m_service = there;
}

void Watcher::End(int status) {
  if (!m_ended) {
    m_status = status;
  }
  m_ended = true;
}

bool Watcher::Wait(unsigned int seconds) {
  const guint timer = seconds == 0 ? 0
                                   : g_timeout_add_seconds(
                                         seconds,
                                         [](gpointer watcher) -> gboolean {
                                           static_cast<Watcher*>(watcher)->Wake();
                                           return G_SOURCE_CONTINUE;
                                         },
                                         this);
  while (!m_ended && !m_awake) {
    g_main_context_iteration(nullptr, TRUE);
  }
  if (timer != 0) {
    g_source_remove(timer);
  }
  m_awake = false;
  return !m_ended;
}

int Follow(Guide& guide, const std::function<Outcome()>& look) {
  Watcher watcher(guide.Bus(), {kGuideChanged},
                  [](Watcher& self, int, const ESGEventData&) { self.Wake(); });
  std::string shown;
  Seconds nap = kLongestNap;
  do {
    try {
      const Outcome outcome = look();
      const std::string& text = outcome.text.empty() ? outcome.nothing : outcome.text;
      if (text != shown) {
        outcome.text.empty() ? Say(text) : Print(text);
        shown = text;
      }
      const Seconds now = PresentTime();
      nap = outcome.changes > now ? std::min(kLongestNap, outcome.changes - now) : kLongestNap;
    } catch (const Failure& failure) {
      if (failure.Status() != kAway) {
        throw;
      }
      // The watcher reports that the service has stopped, and wakes this loop when it is back.
    }
  } while (watcher.Wait(static_cast<unsigned int>(nap)));
  return watcher.Status();
}

int RunWatch(Session& session) {
  const Request& request = session.request;
  const auto bus = ConnectToBus();
  unsigned int seen = 0;
  const auto show = [&](Watcher& self, int event, const ESGEventData& data) {
    try {
      Print(EventLine(event, {data.m_param1, data.m_param2, data.m_param3}, request.json));
      if (++seen == request.count) {
        self.End(kFound);
      }
    } catch (const ClosedPipe&) {
      self.End(kFound);
    } catch (const std::exception& failure) {
      Say(failure.what());
      self.End(kOther);
    }
  };
  Watcher watcher(*bus, request.events, show);
  Say("watching");
  while (watcher.Wait(0)) {
  }
  return watcher.Status();
}

int RunEmit(Session& session) {
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
  return kFound;
}

}  // namespace esgctl
