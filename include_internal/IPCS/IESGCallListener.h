#ifndef I_ESG_CALL_LISTENER_H
#define I_ESG_CALL_LISTENER_H

#include <ESGExport.h>

class ESGMessageBuffer;

/// What a service implements to answer calls; see ECNativeConnection.
class ESG_API IESGCallListener {
 public:
  virtual ~IESGCallListener();

  /// One call: `method` and the payload `in` (both valid during the call only); `out` is empty and
  /// takes the payload of the answer. true for success.
  ///
  /// Runs on the thread of the default GLib main context, one call at a time. Must not throw.
  /// It may start or destroy the ECNativeConnection that calls it.
  virtual bool OnMethodCall(const char* method, ESGMessageBuffer& in, ESGMessageBuffer& out) = 0;
};

#endif
