// Shows the programme that is on, with an epoll loop instead of GLib's: epoll SERVICE-ID EVENT
//
// The loop waits in epoll_wait. It queries at the start, at each EVENT, and at each line on
// standard input, which names another broadcast service. The end of the input ends the program.

#include <ESGAsync.h>
#include <ESGEMSProxy.h>
#include <IPCS/EIIPCConnection.h>
#include <glib.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

/// GLib's default main context as one descriptor and a timeout, for any loop that can wait for
/// these. Use it only on the thread of that loop.
class MainContext {
 public:
  MainContext() { g_main_context_acquire(m_context); }
  ~MainContext() {
    close(m_epoll);
    g_main_context_release(m_context);
  }
  MainContext(const MainContext&) = delete;
  MainContext& operator=(const MainContext&) = delete;

  /// Readable when the context has something to dispatch.
  int Descriptor() const { return m_epoll; }

  /// Call this immediately before the loop waits. Returns the timeout in milliseconds, -1 for none.
  int Prepare() {
    int priority = 0;
    int timeout = -1;
    g_main_context_prepare(m_context, &priority);
    int size = 0;
    while ((size = g_main_context_query(m_context, priority, &timeout, m_polled.data(),
                                        static_cast<int>(m_polled.size()))) >
           static_cast<int>(m_polled.size())) {
      m_polled.resize(static_cast<std::size_t>(size));
    }
    std::map<int, std::uint32_t> wanted;
    for (int i = 0; i < size; ++i) {
      const GPollFD& each = m_polled[static_cast<std::size_t>(i)];
      wanted[each.fd] |= each.events;  // GLib uses the bits of poll, which are those of epoll
    }
    for (const auto& [file, events] : m_watched) {
      if (wanted.count(file) == 0) {
        epoll_ctl(m_epoll, EPOLL_CTL_DEL, file, nullptr);
      }
    }
    for (const auto& [file, events] : wanted) {
      epoll_event event = {};
      event.events = events;
      // A closed descriptor has left the set by itself, and its number may have been reused.
      if (epoll_ctl(m_epoll, EPOLL_CTL_MOD, file, &event) != 0) {
        epoll_ctl(m_epoll, EPOLL_CTL_ADD, file, &event);
      }
    }
    m_watched = std::move(wanted);
    return timeout;
  }

  /// Call this when the descriptor is readable or the timeout has expired; does nothing otherwise.
  void Dispatch() { g_main_context_iteration(m_context, FALSE); }

 private:
  GMainContext* const m_context = g_main_context_default();
  const int m_epoll = epoll_create1(EPOLL_CLOEXEC);
  std::vector<GPollFD> m_polled = std::vector<GPollFD>(8);
  std::map<int, std::uint32_t> m_watched;
};

void Ask(const std::string& serviceId) {
  ESGAsync::GetPresentProgram(
      serviceId, [serviceId](const ESGFailure& failure, const FCESGProgramInfo& program) {
        std::cout << serviceId << ": "
                  << (failure ? ESGFailureText(failure.reason) : program.Title()) << std::endl;
      });
}

void Watch(int epoll, int file) {
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.fd = file;
  epoll_ctl(epoll, EPOLL_CTL_ADD, file, &event);
}

/// Queries the broadcast services that the input names. Returns false at the end of the input.
bool ReadInput(std::string& pending) {
  char bytes[4096];
  const ssize_t size = read(STDIN_FILENO, bytes, sizeof bytes);
  if (size <= 0) {
    return false;
  }
  pending.append(bytes, static_cast<std::size_t>(size));
  for (std::size_t end = 0; (end = pending.find('\n')) != std::string::npos;) {
    Ask(pending.substr(0, end));
    pending.erase(0, end + 1);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: epoll SERVICE-ID EVENT\n";
    return 2;
  }
  const std::string serviceId = argv[1];
  const auto onEvent = [&serviceId](int /*event*/, const ESGEventData& /*data*/) {
    Ask(serviceId);
    return 0;
  };
  IESGEMS* events = ESGEMSProxy::GetInstance(EIIPCConnection::GetInstance(), onEvent);
  if (events->SubscribeSignal(std::atoi(argv[2])) != 0) {
    return 1;
  }
  Ask(serviceId);

  MainContext context;
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  Watch(epoll, context.Descriptor());
  Watch(epoll, STDIN_FILENO);
  std::string pending;
  for (bool isOpen = true; isOpen;) {
    epoll_event ready[2];
    const int count = epoll_wait(epoll, ready, 2, context.Prepare());
    if (count < 0 && errno != EINTR) {
      return 1;
    }
    for (int i = 0; i < count; ++i) {
      if (ready[i].data.fd == STDIN_FILENO) {
        isOpen = ReadInput(pending);
      }
    }
    context.Dispatch();
  }
  close(epoll);
}
