// Continuously shows the programme that is on: banner SERVICE-ID EVENT
//
// Queries again when the programme ends and at each EVENT, and prints what has changed. Nothing
// here blocks the main loop: a callback gets the result.

#include <ESGAsync.h>
#include <ESGEMSProxy.h>
#include <IPCS/EIIPCConnection.h>
#include <glib.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <utility>

namespace {

constexpr std::uint32_t kUnixToNtp = 2208988800;

/// The remaining time of a programme in milliseconds; negative after its end.
std::int64_t MillisecondsLeft(const FCESGProgramInfo& program) {
  const std::int64_t now = g_get_real_time() / 1000;
  const auto ntpNow = static_cast<std::uint32_t>(now / 1000 + kUnixToNtp);
  // The 32-bit difference is correct also when the count of seconds restarts at 0.
  const auto seconds =
      static_cast<std::int32_t>(program.GetStartTime() + program.Duration() - ntpNow);
  return std::int64_t{seconds} * 1000 - now % 1000;
}

/// Runs entirely on the thread of the main loop.
class Banner {
 public:
  explicit Banner(std::string serviceId) : m_serviceId(std::move(serviceId)) {}

  void Refresh() {
    if (m_isQuerying) {
      m_queriesAgain = true;  // the reply may be older than the event
      return;
    }
    m_isQuerying = true;  // one query at a time, however many events arrive
    ESGAsync::GetPresentProgram(
        m_serviceId, [this](const ESGFailure& failure, const FCESGProgramInfo& program) {
          m_isQuerying = false;
          Show(failure ? ESGFailureText(failure.reason) : program.Title());
          if (std::exchange(m_queriesAgain, false)) {
            Refresh();
          } else {
            RefreshIn(failure ? kMaxWait : MillisecondsLeft(program) + kMargin);
          }
        });
  }

 private:
  // A gap, an overlap or a change of the clock gives no end to wait for.
  static constexpr std::int64_t kMaxWait = 30'000;
  // Limits the rate of queries if the reply does not change.
  static constexpr std::int64_t kMinWait = 1'000;
  // The clock of the service may be slightly slow.
  static constexpr std::int64_t kMargin = 50;

  void Show(const std::string& text) {
    if (text != m_shown) {
      std::cout << text << std::endl;
      m_shown = text;
    }
  }

  void RefreshIn(std::int64_t milliseconds) {
    const auto refresh = [](void* banner) -> gboolean {
      static_cast<Banner*>(banner)->m_timer = 0;
      static_cast<Banner*>(banner)->Refresh();
      return G_SOURCE_REMOVE;
    };
    if (m_timer != 0) {
      g_source_remove(m_timer);
    }
    milliseconds = milliseconds < 0 ? kMinWait : std::min(milliseconds, kMaxWait);
    m_timer = g_timeout_add(static_cast<guint>(milliseconds), refresh, this);
  }

  const std::string m_serviceId;
  std::string m_shown;
  bool m_isQuerying = false;
  bool m_queriesAgain = false;
  guint m_timer = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: banner SERVICE-ID EVENT\n";
    return 2;
  }
  Banner banner(argv[1]);
  const auto onEvent = [&banner](int event, const ESGEventData& /*data*/) {
    std::cout << "event " << event << std::endl;
    banner.Refresh();
    return 0;
  };
  IESGEMS* events = ESGEMSProxy::GetInstance(EIIPCConnection::GetInstance(), onEvent);
  if (events->SubscribeSignal(std::atoi(argv[2])) != 0) {
    return 1;
  }
  banner.Refresh();  // after subscribing, so that no change is missed

  g_main_loop_run(g_main_loop_new(nullptr, FALSE));  // until the program is interrupted
}
