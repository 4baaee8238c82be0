#ifndef ESG_FAILURE_H
#define ESG_FAILURE_H

#include <string>

#include "ESGExport.h"

/// @file
/// Why an operation failed.

/// The reasons for a failure that an application may handle differently. The values are part of the
/// binary interface.
enum class ESGFailureReason : int {
  None = 0,          ///< the operation succeeded
  NotFound = 1,      ///< the service found nothing, or did not save
  NoBus = 2,         ///< no connection to the system bus, or the connection was lost
  NoService = 3,     ///< no guide service on the bus, and the bus could not start one
  NoAnswer = 4,      ///< no reply in time, or waiting for one was impossible
  AccessDenied = 5,  ///< the bus or the service refused
  TooLarge = 6,      ///< the call or its reply is larger than the bus accepts
  ServiceError = 7,  ///< the service replied with an error
  Unreadable = 8,    ///< the reply does not follow the protocol
};

/// One failure, or none.
struct ESGFailure {
  /// The reason, for the application to act on.
  ESGFailureReason reason = ESGFailureReason::None;
  /// The name and the text of the D-Bus error, for logs; empty if there was none. Very long texts
  /// are truncated.
  std::string errorName;
  std::string errorText;

  /// Whether there is a failure.
  explicit operator bool() const { return reason != ESGFailureReason::None; }
};

/// Why the calling thread's last operation of IESGService or FCESGGuide.h failed. No failure after
/// an operation that succeeded, and before the first. Unreadable after an operation that ended with
/// an exception of the JSON library. NoAnswer after a failure in a connection that is not the
/// library's own.
///
/// Queries of ESGAsync do not change it: their callbacks get the failure.
///
/// Does not block; any thread may call.
ESG_API ESGFailure ESGLastFailure();

/// A sentence in English for people to read, without a line end. Valid for ever.
ESG_API const char* ESGFailureText(ESGFailureReason reason);

#endif
