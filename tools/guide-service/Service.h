#ifndef GUIDE_SERVICE_H
#define GUIDE_SERVICE_H

#include <IESGService.h>
#include <IPCS/ECIPCBroadcaster.h>
#include <IPCS/ECNativeConnection.h>
#include <gio/gio.h>

#include <cstdint>
#include <future>
#include <memory>
#include <string>

#include "Listener.h"
#include "SaveFolder.h"
#include "Source.h"
#include "common/Bus.h"

namespace esg::guide {

/// The program's exit status, numbered as in sysexits.h. A bus that starts it without systemd takes
/// 1 to 11 for its own.
enum ExitStatus : int {
  kExitDone = 0,
  kExitUsage = 64,
  kExitFaults = 65,
  kExitFolder = 66,
  kExitBus = 69,
  kExitFailed = 70,
  kExitNameTaken = 75,
  kExitNameRefused = 77,
};

struct ServiceOptions {
  std::string guideFolder;
  std::string saveFolder;  ///< empty: nothing may be saved
  SaveLimits saveLimits;
  std::string aliasFile;  ///< where to keep the list of services; empty: nowhere
  std::string busName = kESGServiceName;
  bool today = false;
  bool stdinEvents = false;
};

/// The service on the bus: replies to calls, follows changes of the folder, emits events.
class Service {
 public:
  Service(const ServiceOptions& options, Report report);
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
  ~Service();

  /// Serves until SIGINT or SIGTERM. Raises Failure.
  void Run();

 private:
  struct Reading {
    std::shared_ptr<const Guide> guide;  ///< null: as it was
    std::string fault;
  };

  Reading Read(unsigned int threads);
  void ReadAgain();
  void Take(Reading reading);
  bool WriteAliases(const Guide& guide);
  void WatchFolder();
  void FolderChanged();
  void ReadAgainAfter(unsigned int milliseconds);
  unsigned int OwnerOf(const char* name) const;
  void TakeName();
  void ReadOrder();
  void OrderRead(GAsyncResult* result);

  const ServiceOptions m_options;
  const Report m_report;
  const SaveFolder m_saves;
  Source m_source;
  GuideListener m_listener;
  std::unique_ptr<tools::Bus> m_bus;
  ECIPCBroadcaster* m_emitter = nullptr;  ///< the process's
  std::unique_ptr<ECNativeConnection> m_connection;
  GFileMonitor* m_monitor = nullptr;
  GDataInputStream* m_orders = nullptr;  ///< events to emit, a line each
  GMainLoop* m_loop;
  unsigned int m_timer = 0;         ///< has the folder read again
  std::int64_t m_changedSince = 0;  ///< milliseconds of the monotonic clock
  std::string m_fault;              ///< why the folder cannot be read
  int m_generation = 0;             ///< how many different guides there have been
  bool m_aliasesWritten = true;     ///< false: the next reading tries again
  bool m_busLost = false;
  bool m_isReading = false;
  bool m_readAfter = false;  ///< something has changed since the reading under way started
  std::future<void> m_disposal;
  std::future<Reading> m_reading;  ///< last: uses the others
};

}  // namespace esg::guide

#endif
