#ifndef GUIDE_SERVICE_H
#define GUIDE_SERVICE_H

#include <IESGService.h>
#include <IPCS/ECNativeConnection.h>
#include <gio/gio.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Events.h"
#include "Folder.h"
#include "Listener.h"
#include "common/Bus.h"

namespace guide {

/// What the program exits with.
enum ExitStatus : int {
  kExitDone = 0,
  kExitFailed = 1,
  kExitUsage = 2,
  kExitFolder = 3,
  kExitNameTaken = 4,
  kExitNameRefused = 5,
  kExitBus = 8,
};

struct ServiceOptions {
  std::string guideFolder;
  std::string saveFolder;  ///< empty: nothing may be saved
  std::string busName = kESGServiceName;
  bool today = false;
  bool stdinEvents = false;
};

/// The guide of a folder, read again on demand.
class GuideSource {
 public:
  GuideSource(std::string folder, bool today, Report report);

  /// Reads the folder. True when the guide is another one now; the first reading always is. Raises
  /// std::system_error, and leaves the guide as it was, where the folder cannot be read.
  bool Read();

  const std::shared_ptr<const Guide>& Current() const { return m_guide; }
  /// How many different guides there have been.
  int Generation() const { return m_generation; }

 private:
  const std::string m_folder;
  const bool m_today;
  const Report m_report;
  std::shared_ptr<const Guide> m_guide;
  // Decided once, so that the guide does not move when it is read again after midnight.
  std::optional<std::uint32_t> m_shift;
  int m_generation = 0;
};

/// The service on the bus: answers calls, follows changes of the folder, emits events.
class Service {
 public:
  Service(const ServiceOptions& options, Report report);
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  ~Service();

  /// Serves until a signal ends it. Raises esg::tools::Failure.
  void Run();

 private:
  void HandleHangup();
  void TakeName();
  void WatchFolder();
  void Listen();
  void FolderChanged();
  void ReadAgain();
  void ReadOrder();
  void OrderRead(GAsyncResult* result);

  const ServiceOptions m_options;
  const Report m_report;
  GuideSource m_source;
  std::unique_ptr<GuideListener> m_listener;
  std::unique_ptr<esg::tools::Bus> m_bus;
  EventEmitter* m_emitter = nullptr;  ///< the process's
  std::unique_ptr<ECNativeConnection> m_connection;
  GFileMonitor* m_monitor = nullptr;
  GDataInputStream* m_orders = nullptr;  ///< events to emit, a line each
  GMainLoop* m_loop;
  unsigned int m_pendingRead = 0;   ///< the timer that reads the folder again
  std::int64_t m_changedSince = 0;  ///< milliseconds of the monotonic clock
  bool m_busLost = false;
};

}  // namespace guide

#endif
