#include "Watch.h"

#include <ESGEMSProxy.h>
#include <IESGService.h>
#include <IPCS/EIIPCConnection.h>
#include <glib-unix.h>
#include <json/value.h>

#include <csignal>
#include <iostream>

#include "Bus.h"
#include "Json.h"
#include "Terminal.h"
#include "Time.h"

namespace esgctl {
namespace {

/// The loop, and why it ends.
class Watcher {
 public:
  explicit Watcher(const WatchRequest& request)
      : m_request(request), m_loop(g_main_loop_new(nullptr, FALSE)) {}
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;
  ~Watcher() { g_main_loop_unref(m_loop); }

  /// Nothing may leave the callback but by its return.
  int OnEvent(int event, const ESGEventData& data) noexcept;
  /// Tells of a change.
  void SetService(bool there) {
    if (there != m_service && !m_ended) {
      std::cerr << (there ? "esgctl: the guide service is there\n"
                          : "esgctl: the guide service is not there; watching goes on\n");
    }
    m_service = there;
  }
  void End(Status status) {
    m_status = status;
    m_ended = true;
    g_main_loop_quit(m_loop);
  }
  Status Run() {
    if (!m_ended) {
      g_main_loop_run(m_loop);
    }
    return m_status;
  }

 private:
  std::string Line(int event, const ESGEventData& data) const;

  const WatchRequest& m_request;
  GMainLoop* m_loop;
  Status m_status = kFound;
  bool m_ended = false;
  bool m_service = true;
  unsigned int m_seen = 0;
};

std::string Watcher::Line(int event, const ESGEventData& data) const {
  const Seconds now = g_get_real_time() / G_USEC_PER_SEC;
  if (m_request.json) {
    Json::Value line;
    line["event"] = event;
    line["time"] = static_cast<Json::Int64>(now);
    for (const int parameter : {data.m_param1, data.m_param2, data.m_param3}) {
      line["params"].append(parameter);
    }
    return JsonText(line, Layout::OneLine);
  }
  std::string line = FormatTime(now, "%Y-%m-%d %H:%M:%S  ") + std::to_string(event) + ' ';
  for (const int parameter : {data.m_param1, data.m_param2, data.m_param3}) {
    line += ' ' + std::to_string(parameter);
  }
  return line + '\n';
}

int Watcher::OnEvent(int event, const ESGEventData& data) noexcept {
  if (m_ended) {
    return 0;
  }
  try {
    Print(Line(event, data));
    if (++m_seen == m_request.count) {
      End(kFound);
    }
  } catch (const ClosedPipe&) {
    End(kFound);
  } catch (const std::exception& failure) {
    std::cerr << "esgctl: " << failure.what() << '\n';
    End(kOther);
  }
  return 0;
}

gboolean OnSignal(gpointer watcher) {
  static_cast<Watcher*>(watcher)->End(kFound);
  return G_SOURCE_CONTINUE;
}

gboolean OnOutputGone(gint, GIOCondition, gpointer watcher) {
  static_cast<Watcher*>(watcher)->End(kFound);
  return G_SOURCE_REMOVE;
}

void OnBusGone(GDBusConnection*, gboolean, GError*, gpointer watcher) {
  std::cerr << "esgctl: the system bus has gone; start watching again when it is back\n";
  static_cast<Watcher*>(watcher)->End(kAway);
}

void OnServiceThere(GDBusConnection*, const gchar*, const gchar*, gpointer watcher) {
  static_cast<Watcher*>(watcher)->SetService(true);
}

void OnServiceGone(GDBusConnection*, const gchar*, gpointer watcher) {
  static_cast<Watcher*>(watcher)->SetService(false);
}

}  // namespace

Status Watch(const WatchRequest& request) {
  const Bus bus;
  // The library tells of short payloads on standard output, in between the lines that scripts read.
  const int output = KeepOutput();
  Watcher watcher(request);
  g_unix_signal_add(SIGINT, OnSignal, &watcher);
  g_unix_signal_add(SIGTERM, OnSignal, &watcher);
  g_unix_fd_add(output, static_cast<GIOCondition>(G_IO_ERR | G_IO_HUP), OnOutputGone, &watcher);
  g_signal_connect(bus.Connection(), "closed", G_CALLBACK(OnBusGone), &watcher);
  g_bus_watch_name_on_connection(bus.Connection(), kESGServiceName, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                 OnServiceThere, OnServiceGone, &watcher, nullptr);

  IESGEMS* const events = ESGEMSProxy::GetInstance(
      EIIPCConnection::GetInstance(),
      [&watcher](int event, const ESGEventData& data) { return watcher.OnEvent(event, data); });
  for (const int event : request.events) {
    if (events->SubscribeSignal(event) != 0) {
      throw Failure(kAway, "The system bus does not take the subscription to event " +
                               std::to_string(event) + ".");
    }
  }
  std::cerr << "esgctl: watching\n";
  return watcher.Run();
}

}  // namespace esgctl
