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

/// Called with the number of an event or of data, and its payload, which is valid only during the
/// call. Runs on the thread of the main context, which cannot be cancelled during the call. Must
/// not throw.
using EIIPCCallback = void (*)(int number, ESGMessageBuffer& payload);

/// The client side of the bus: calls to the service, and its signals.
///
/// The order of the operations is part of the binary interface.
class ESG_API EIIPCConnection {
 public:
  /// The process-wide connection, created on first use. It waits for the system bus, in up to 61
  /// attempts one second apart, and ends the process if there is none. Never delete it.
  ///
  /// Its connections close when the process ends; later calls fail. In a process forked from the
  /// one that created it, calls fail with a line in the log, and nothing is closed.
  static EIIPCConnection* GetInstance();

  virtual ~EIIPCConnection();

  /// Does nothing and returns false: the constructor connects.
  virtual bool Connect() = 0;

  /// Starts or ends the reception of `Event` signals with this number. Any thread may call, also
  /// inside a callback. Blocks for one round trip to the bus, at most 25 seconds. Returns false on
  /// failure, with an error line in the log.
  virtual bool AddMatchRule(int event) = 0;
  virtual bool RemoveMatchRule(int event) = 0;

  /// Calls `method` of the service that owns the bus name `destination`, with the bytes of `in`,
  /// and appends the bytes of the reply to `out`. Returns the result of the service. Without a
  /// valid reply, returns -1, writes the reason to the log and leaves `out` unchanged.
  ///
  /// Blocks until the reply arrives, at most 25 seconds (libdbus's default). Any thread may call,
  /// and calls do not wait for each other. Calls beyond 120 outstanding ones wait for their turn
  /// within their 25 seconds. Throws only if memory is exhausted.
  virtual int Call(const std::string& destination, const char* method, ESGMessageBuffer& in,
                   ESGMessageBuffer& out) = 0;

  /// The callbacks for `Event` and `Data` signals; without one, the signals are dropped. A callback
  /// that another thread replaces or unsets may run once more.
  virtual void SetEventCallbackFunction(EIIPCCallback callback) = 0;
  virtual void UnSetEventCallbackFunction() = 0;
  virtual void SetDataCallbackFunction(EIIPCCallback callback) = 0;

  /// The unique bus name under which this process receives signals.
  virtual const std::string& GetConnectionId() = 0;

  /// Attaches the reception of signals to a GLib main context; null means the default one. Signals
  /// arrive while the context runs.
  virtual void SetGMainLoop(GMainContext* context) = 0;

 protected:
  /// Connects to the system bus; the constructor calls this. A further call creates new
  /// connections. Without a bus, writes an error line to the log, returns false and changes
  /// nothing.
  virtual bool m_Connect() = 0;
};

#endif
