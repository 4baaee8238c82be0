#ifndef I_ESG_CALL_LISTENER_H
#define I_ESG_CALL_LISTENER_H

#include <ESGExport.h>

class ESGMessageBuffer;

/// The interface that a service implements to reply to calls; see ECNativeConnection.
class ESG_API IESGCallListener {
 public:
  virtual ~IESGCallListener();

  /// Serves one call: `method` and the payload `in`, both valid only during the call. `out` is
  /// empty and takes the payload of the reply. Returns true for success.
  ///
  /// Runs on the thread of the default GLib main context, one call at a time. Must not throw.
  /// It may start or destroy the ECNativeConnection that calls it.
  virtual bool OnMethodCall(const char* method, ESGMessageBuffer& in, ESGMessageBuffer& out) = 0;
};

#endif
