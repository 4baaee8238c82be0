#include "Service.h"

#include <gio/gunixinputstream.h>
#include <glib-unix.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <sstream>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "Check.h"
#include "common/Program.h"
#include "common/Text.h"
#include "common/Time.h"

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace esg::guide {
namespace {

using tools::Failure;

// A new guide comes as many files, one after the other: it is read when nothing has changed for a
// while, or when that takes too long.
constexpr unsigned int kQuietMilliseconds = 250;
constexpr std::int64_t kMaxQuietMilliseconds = 2000;
constexpr unsigned int kRetryMilliseconds = 1000;

/// The event for a new guide. Its integers: the number of guides since the start, the services, the
/// programmes.
constexpr int kGuideChanged = 5;

std::string Counts(const Guide& guide) {
  return std::to_string(guide.Services().size()) + " services, " +
         std::to_string(guide.ProgramCount()) + " programmes";
}

void Dispose(std::shared_ptr<const Guide> guide) {
  guide.reset();
#ifdef __GLIBC__
  // Each thread allocates from an area of its own, and the next one could not use what is free now.
  malloc_trim(0);
#endif
}

}  // namespace

Service::Service(const ServiceOptions& options, Report report)
    : m_options(options),
      m_report(std::move(report)),
      m_saves(options.saveFolder, options.saveLimits),
      m_source(options.guideFolder, options.today, m_report),
      m_listener(
          options.guideFolder, m_saves,
          [] { return tools::NtpFromUnix(g_get_real_time() / G_USEC_PER_SEC); }, m_report),
      m_loop(g_main_loop_new(nullptr, FALSE)) {}

Service::~Service() {
  g_clear_object(&m_monitor);
  g_clear_object(&m_orders);
  g_main_loop_unref(m_loop);
}

void Service::Run() {
  // One that comes before the loop runs is served when it does.
  g_unix_signal_add(
      SIGHUP,
      [](gpointer service) -> gboolean {
        static_cast<Service*>(service)->WatchFolder();
        static_cast<Service*>(service)->ReadAgain();
        return G_SOURCE_CONTINUE;
      },
      this);
  WatchFolder();
  // Two threads: there are many small files, and the kernel's work on them takes the most time.
  Take(Read(std::min(std::thread::hardware_concurrency(), 2U)));
  TakeName();
  m_bus->OnLost([this] {
    m_busLost = true;
    g_main_loop_quit(m_loop);
  });
  if (m_options.stdinEvents) {
    g_autoptr(GInputStream) input = g_unix_input_stream_new(STDIN_FILENO, FALSE);
    m_orders = g_data_input_stream_new(input);
    ReadOrder();
  }
  // Before this, SIGINT and SIGTERM end the process at once, even where the bus holds it up.
  const auto quit = [](gpointer loop) -> gboolean {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
  };
  g_unix_signal_add(SIGINT, quit, m_loop);
  g_unix_signal_add(SIGTERM, quit, m_loop);
  std::cout << "ready " << m_options.busName << ": " << Counts(m_listener.CurrentGuide())
            << std::endl;
  g_main_loop_run(m_loop);
  if (m_busLost) {
    throw Failure(kExitBus, "the bus closed the connection");
  }
  if (m_isReading) {
    ::_exit(kExitDone);  // a large guide takes longer to be read than anybody waits for an end
  }
}

Service::Reading Service::Read(unsigned int threads) {
  Reading reading;
  try {
    reading.guide = m_source.Read(threads);
    if (reading.guide != nullptr || !m_aliasesWritten) {
      m_aliasesWritten =
          WriteAliases(reading.guide != nullptr ? *reading.guide : m_listener.CurrentGuide());
    }
  } catch (const std::exception& fault) {
    reading.fault = fault.what();
  }
  return reading;
}

void Service::ReadAgain() {
  if (std::exchange(m_isReading, true)) {
    m_readAfter = true;
    return;
  }
  const auto read = [this] {
    Reading reading = Read(1);
    g_idle_add_full(
        G_PRIORITY_DEFAULT,
        [](gpointer service) -> gboolean {
          auto& self = *static_cast<Service*>(service);
          self.m_isReading = false;
          self.Take(self.m_reading.get());
          if (std::exchange(self.m_readAfter, false)) {
            self.ReadAgain();
          }
          return G_SOURCE_REMOVE;
        },
        this, nullptr);
    return reading;
  };
  try {
    m_reading = std::async(std::launch::async, read);
  } catch (const std::system_error& fault) {
    m_isReading = false;
    Take({nullptr, fault.what()});
  }
}

void Service::Take(Reading reading) {
  const bool isFirst = m_emitter == nullptr;
  if (!reading.fault.empty()) {
    if (reading.fault != m_fault) {
      m_report("the guide cannot be read: " + reading.fault + "; the service keeps " +
               (m_generation == 0 ? "an empty guide" : "the previous guide") + " and tries again");
      m_fault = reading.fault;
    }
    if (m_timer == 0) {
      ReadAgainAfter(kRetryMilliseconds);
    }
    return;
  }
  if (!m_fault.empty()) {
    m_fault.clear();
    WatchFolder();  // it may be another one by the same name, and have changed in between
    FolderChanged();
  }
  if (reading.guide == nullptr) {
    m_report("the guide is as it was");
    return;
  }
  ++m_generation;
  const Guide& guide = *reading.guide;
  if (!isFirst) {
    m_report("a new guide: " + Counts(guide));
    m_emitter->Send(kGuideChanged, m_generation, static_cast<int>(guide.Services().size()),
                    static_cast<int>(guide.ProgramCount()));
  }
  // Freeing a large guide takes a while.
  try {
    m_disposal =
        std::async(std::launch::async, Dispose, m_listener.SetGuide(std::move(reading.guide)));
  } catch (const std::system_error&) {  // no thread is possible: it has been freed here
  }
}

// Replaced as a whole: tools may read the list at any time.
bool Service::WriteAliases(const Guide& guide) {
  const char* const path = m_options.aliasFile.c_str();
  if (m_options.aliasFile.empty()) {
    return true;
  }
  if (g_file_test(path, G_FILE_TEST_EXISTS) != FALSE &&
      g_file_test(path, G_FILE_TEST_IS_REGULAR) == FALSE) {
    m_report("the list of services cannot be written: " + m_options.aliasFile + " is not a file");
    return false;
  }
  std::ostringstream list;
  PrintAliases(list, guide);
  const std::string text = list.str();
  g_autoptr(GError) error = nullptr;
  if (g_file_set_contents(path, text.data(), static_cast<gssize>(text.size()), &error) == FALSE) {
    m_report(std::string("the list of services cannot be written: ") + error->message);
  }
  return error == nullptr;
}

// From before the first reading on, so that no change is missed.
void Service::WatchFolder() {
  g_clear_object(&m_monitor);
  g_autoptr(GFile) folder = g_file_new_for_path(m_options.guideFolder.c_str());
  m_monitor = g_file_monitor_directory(folder, G_FILE_MONITOR_WATCH_MOVES, nullptr, nullptr);
  if (m_monitor == nullptr) {
    m_report("the guide's folder cannot be watched; send SIGHUP after a change");
  } else {
    g_signal_connect(
        m_monitor, "changed",
        G_CALLBACK(+[](GFileMonitor*, GFile*, GFile*, GFileMonitorEvent, gpointer service) {
          static_cast<Service*>(service)->FolderChanged();
        }),
        this);
  }
}

void Service::FolderChanged() {
  const std::int64_t now = g_get_monotonic_time() / 1000;
  if (m_timer == 0) {
    m_changedSince = now;
  } else if (now - m_changedSince > kMaxQuietMilliseconds) {
    return;
  } else {
    g_source_remove(m_timer);
  }
  ReadAgainAfter(kQuietMilliseconds);
}

void Service::ReadAgainAfter(unsigned int milliseconds) {
  m_timer = g_timeout_add(
      milliseconds,
      [](gpointer service) -> gboolean {
        static_cast<Service*>(service)->m_timer = 0;
        static_cast<Service*>(service)->ReadAgain();
        return G_SOURCE_REMOVE;
      },
      this);
}

/// The process that owns a name; 0 when none does.
unsigned int Service::OwnerOf(const char* name) const {
  g_autoptr(GVariant) reply =
      m_bus->Call("GetConnectionUnixProcessID", g_variant_new("(s)", name), "(u)");
  guint32 owner = 0;
  if (reply != nullptr) {
    g_variant_get(reply, "(u)", &owner);
  }
  return owner;
}

// The library waits a minute for a bus, and being second in the queue for a name is success to it,
// so a connection of our own looks at both.
void Service::TakeName() {
  try {
    m_bus = std::make_unique<tools::Bus>();
  } catch (const std::runtime_error& fault) {
    throw Failure(kExitBus, std::string("no system bus: ") + fault.what());
  }
  const char* name = m_options.busName.c_str();
  const auto throwTaken = [&](unsigned int owner) {
    throw Failure(kExitNameTaken, "the name " + m_options.busName + " is taken by process " +
                                      std::to_string(owner) +
                                      "; stop that or choose another name with --name");
  };
  if (const unsigned int owner = OwnerOf(name)) {
    throwTaken(owner);
  }
  static ECIPCBroadcaster emitter;  // its connection stays when it is destroyed
  m_emitter = &emitter;
  m_connection = std::make_unique<ECNativeConnection>();
  if (!m_connection->Start(name, &m_listener)) {
    throw Failure(kExitNameRefused, "the bus refuses the name " + m_options.busName +
                                        "; its policy has to allow this user to own it");
  }
  const unsigned int owner = OwnerOf(name);
  if (owner != OwnerOf(g_dbus_connection_get_unique_name(m_bus->Connection()))) {
    throwTaken(owner);
  }
}

void Service::ReadOrder() {
  g_data_input_stream_read_line_async(
      m_orders, G_PRIORITY_DEFAULT, nullptr,
      [](GObject*, GAsyncResult* result, gpointer service) {
        static_cast<Service*>(service)->OrderRead(result);
      },
      this);
}

void Service::OrderRead(GAsyncResult* result) {
  g_autofree char* line = g_data_input_stream_read_line_finish(m_orders, result, nullptr, nullptr);
  if (line == nullptr) {
    return;
  }
  std::istringstream words(line);
  std::vector<int> numbers;
  bool good = true;
  for (std::string word; good && words >> word;) {
    good = tools::ParseNumber(word, numbers.emplace_back());
  }
  if (good && numbers.size() == 1) {
    m_emitter->Send(numbers[0]);
  } else if (good && numbers.size() == 4) {
    m_emitter->Send(numbers[0], numbers[1], numbers[2], numbers[3]);
  } else {
    m_report(std::string("an event is NUMBER or NUMBER P1 P2 P3, not: ") + Short(line));
  }
  ReadOrder();
}

}  // namespace esg::guide
