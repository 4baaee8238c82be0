#include "Service.h"

#include <gio/gunixinputstream.h>
#include <glib-unix.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <iostream>
#include <system_error>
#include <utility>

#include "common/Failure.h"
#include "common/Time.h"

namespace guide {

using esg::tools::Failure;

namespace {

// A new guide comes as many files, one after the other: it is read when nothing has changed for a
// while, or when that takes too long.
constexpr unsigned int kQuietMilliseconds = 250;
constexpr gint64 kLongestQuietMilliseconds = 2000;

// The process that owns `name`; 0 when nobody does.
unsigned int OwnerOf(const esg::tools::Bus& bus, const char* name) {
  g_autoptr(GVariant) reply =
      bus.Call("GetConnectionUnixProcessID", g_variant_new("(s)", name), "(u)");
  guint32 owner = 0;
  if (reply != nullptr) {
    g_variant_get(reply, "(u)", &owner);
  }
  return owner;
}

}  // namespace

GuideSource::GuideSource(std::string folder, bool today, Report report)
    : m_folder(std::move(folder)), m_today(today), m_report(std::move(report)) {}

bool GuideSource::Read() {
  std::vector<Fragment> fragments = LoadFolder(m_folder, m_report);
  if (m_today && !m_shift) {
    if (const auto first = Guide(fragments, 0, [](const std::string&) {}).First()) {
      m_shift = ShiftToToday(*first, std::time(nullptr));
    }
  }
  auto guide = std::make_shared<const Guide>(std::move(fragments), m_shift.value_or(0), m_report);
  if (m_guide && m_guide->HasSameFragments(*guide)) {
    return false;
  }
  m_guide = std::move(guide);
  ++m_generation;
  return true;
}

Service::Service(const ServiceOptions& options, Report report)
    : m_options(options),
      m_report(std::move(report)),
      m_source(options.guideFolder, options.today, m_report),
      m_loop(g_main_loop_new(nullptr, FALSE)) {}

Service::~Service() {
  g_clear_object(&m_monitor);
  g_clear_object(&m_orders);
  g_main_loop_unref(m_loop);
}

void Service::Run() {
  HandleHangup();
  WatchFolder();
  try {
    m_source.Read();
    m_listener = std::make_unique<GuideListener>(
        m_source.Current(),
        m_options.saveFolder.empty() ? SaveFolder() : SaveFolder(m_options.saveFolder),
        [] { return esg::tools::NtpFromUnix(std::time(nullptr)); }, m_report);
  } catch (const std::system_error& fault) {
    throw Failure(kExitFolder, fault.what());
  }
  TakeName();
  Listen();
  std::cout << "ready " << m_options.busName << ": " << m_source.Current()->ServiceCount()
            << " services, " << m_source.Current()->ProgramCount() << " programmes" << std::endl;
  g_main_loop_run(m_loop);
  if (m_busLost) {
    throw Failure(kExitBus, "the bus closed the connection");
  }
}

// The library waits a minute for a bus, and being second in the queue for a name is success to it,
// so both are looked at from beside.
void Service::TakeName() {
  try {
    m_bus = std::make_unique<esg::tools::Bus>();
  } catch (const std::runtime_error& fault) {
    throw Failure(kExitBus, std::string("no system bus: ") + fault.what());
  }
  const std::string& name = m_options.busName;
  const auto throwTaken = [&](unsigned int owner) {
    throw Failure(kExitNameTaken, "the name " + name + " is taken by process " +
                                      std::to_string(owner) +
                                      "; stop that or choose another one with --name");
  };
  if (const unsigned int owner = OwnerOf(*m_bus, name.c_str())) {
    throwTaken(owner);
  }
  static EventEmitter emitter;  // its connection stays when it is destroyed
  m_emitter = &emitter;
  m_connection = std::make_unique<ECNativeConnection>();
  if (!m_connection->Start(name, m_listener.get())) {
    throw Failure(kExitNameRefused, "the bus refuses the name " + name +
                                        "; its policy has to allow this user to own it");
  }
  const unsigned int owner = OwnerOf(*m_bus, name.c_str());
  if (owner != OwnerOf(*m_bus, g_dbus_connection_get_unique_name(m_bus->Connection()))) {
    throwTaken(owner);
  }
}

// One that comes before the loop runs is served when it does.
void Service::HandleHangup() {
  g_unix_signal_add(
      SIGHUP,
      [](gpointer service) -> gboolean {
        static_cast<Service*>(service)->ReadAgain();
        return G_SOURCE_CONTINUE;
      },
      this);
}

// From before the first reading on, so that no change is missed.
void Service::WatchFolder() {
  GFile* folder = g_file_new_for_path(m_options.guideFolder.c_str());
  m_monitor = g_file_monitor_directory(folder, G_FILE_MONITOR_WATCH_MOVES, nullptr, nullptr);
  g_object_unref(folder);
  if (m_monitor == nullptr) {
    m_report("changes of the guide's folder cannot be noticed; SIGHUP has it read again");
  } else {
    g_signal_connect(
        m_monitor, "changed",
        G_CALLBACK(+[](GFileMonitor*, GFile*, GFile*, GFileMonitorEvent, gpointer service) {
          static_cast<Service*>(service)->FolderChanged();
        }),
        this);
  }
}

// Before this, SIGINT and SIGTERM end the process at once, even where a mute bus holds it up.
void Service::Listen() {
  const auto quit = [](gpointer loop) -> gboolean {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
  };
  g_unix_signal_add(SIGINT, quit, m_loop);
  g_unix_signal_add(SIGTERM, quit, m_loop);
  m_bus->OnLost([this] {
    m_busLost = true;
    g_main_loop_quit(m_loop);
  });
  if (m_options.stdinEvents) {
    GInputStream* input = g_unix_input_stream_new(STDIN_FILENO, FALSE);
    m_orders = g_data_input_stream_new(input);
    g_object_unref(input);
    ReadOrder();
  }
}

void Service::FolderChanged() {
  const gint64 now = g_get_monotonic_time() / 1000;
  if (m_pendingRead == 0) {
    m_changedSince = now;
  } else if (now - m_changedSince > kLongestQuietMilliseconds) {
    return;
  } else {
    g_source_remove(m_pendingRead);
  }
  m_pendingRead = g_timeout_add(
      kQuietMilliseconds,
      [](gpointer service) -> gboolean {
        static_cast<Service*>(service)->m_pendingRead = 0;
        static_cast<Service*>(service)->ReadAgain();
        return G_SOURCE_REMOVE;
      },
      this);
}

void Service::ReadAgain() {
  try {
    if (!m_source.Read()) {
      m_report("the guide is as it was");
      return;
    }
  } catch (const std::exception& fault) {
    m_report(std::string("the guide stays as it was: ") + fault.what());
    return;
  }
  const Guide& guide = *m_source.Current();
  m_listener->SetGuide(m_source.Current());
  m_report("a new guide: " + std::to_string(guide.ServiceCount()) + " services, " +
           std::to_string(guide.ProgramCount()) + " programmes");
  m_emitter->Send({kGuideChanged,
                   {m_source.Generation(), static_cast<int>(guide.ServiceCount()),
                    static_cast<int>(guide.ProgramCount())}});
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
  char* text = g_data_input_stream_read_line_finish(m_orders, result, nullptr, nullptr);
  if (text == nullptr) {
    return;
  }
  const std::string line = text;
  g_free(text);
  if (const auto order = ParseEventOrder(line)) {
    m_emitter->Send(*order);
  } else {
    m_report("an event is NUMBER or NUMBER P1 P2 P3, not: " + line);
  }
  ReadOrder();
}

}  // namespace guide
