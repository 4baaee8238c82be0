#ifndef EI_IPC_CONNECTION_H
#define EI_IPC_CONNECTION_H

#include <ESGExport.h>

#include <string>

/// @file
/// The client side of the bus.

class ESGMessageBuffer;
/// GLib's.
typedef struct _GMainContext GMainContext;

/// The kind of a signal; the enumerator's name is the signal's member on the bus.
enum eECIPCMessageType : int {
  Event = 0,  ///< to all subscribers, or to one receiver
  Data = 1,   ///< to one receiver
};

/// Called with the number of an event or of data and its payload, which is valid during the call
/// only. Runs on the thread of the main context, which cannot be cancelled meanwhile; must not
/// throw.
using EIIPCCallback = void (*)(int number, ESGMessageBuffer& payload);

/// The client side of the bus: calls to the service, and its signals.
///
/// The order of the operations is part of the binary interface.
class ESG_API EIIPCConnection {
 public:
  /// The process-wide connection, made on first use: it waits for the system bus, in up to 61
  /// attempts one second apart, and ends the process when there is none. Never delete it.
  ///
  /// Its connections close when the process ends; calls after that fail. In a process forked from
  /// the one that made it, calls fail with a line in the log, and nothing is closed.
  static EIIPCConnection* GetInstance();

  virtual ~EIIPCConnection();

  /// Does nothing and returns false: the constructor connects.
  virtual bool Connect() = 0;

  /// Starts and ends the reception of `Event` signals with this number. Any thread may call, also
  /// from inside a callback. Blocks for one round trip to the bus, at most 25 seconds. false on
  /// failure, with an error line in the log.
  virtual bool AddMatchRule(int event) = 0;
  virtual bool RemoveMatchRule(int event) = 0;

  /// Calls `method` of the service that owns the bus name `destination`, with the bytes of `in`,
  /// and appends the reply's bytes to `out`. The service's result, or -1 when there is no answer;
  /// the log has the reason, and `out` is then as it was.
  ///
  /// Blocks until the answer is there, at most 25 seconds (the bus library's default). Any thread
  /// may call; calls do not wait for each other, except for those beyond 120 outstanding ones,
  /// which wait their turn within their 25 seconds. Never throws, save for exhausted memory.
  virtual int Call(const std::string& destination, const char* method, ESGMessageBuffer& in,
                   ESGMessageBuffer& out) = 0;

  /// What `Event` and `Data` signals are handed to; without one they are dropped. A callback that
  /// is replaced or unset from another thread may run once more.
  virtual void SetEventCallbackFunction(EIIPCCallback callback) = 0;
  virtual void UnSetEventCallbackFunction() = 0;
  virtual void SetDataCallbackFunction(EIIPCCallback callback) = 0;

  /// The unique bus name under which this process receives signals.
  virtual const std::string& GetConnectionId() = 0;

  /// Attaches the reception of signals to a GLib main context; null means the default one. The
  /// context must run for signals to arrive.
  virtual void SetGMainLoop(GMainContext* context) = 0;

 protected:
  /// Connects to the system bus; what the constructor calls. Called again, it makes new
  /// connections. false, with an error line in the log, without a bus; the object is then as it
  /// was.
  virtual bool m_Connect() = 0;
};

#endif
