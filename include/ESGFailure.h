#ifndef ESG_FAILURE_H
#define ESG_FAILURE_H

#include <string>

#include "ESGExport.h"

/// @file
/// Why an operation failed.

/// The reasons that an application treats differently. The values are part of the binary interface.
enum class ESGFailureReason : int {
  None = 0,          ///< it succeeded
  NotFound = 1,      ///< the service said that it found nothing, or did not save
  NoBus = 2,         ///< no connection to the system bus, or no longer
  NoService = 3,     ///< no guide service on the bus, and none that the bus could start
  NoAnswer = 4,      ///< no answer in time, or none that could be waited for
  AccessDenied = 5,  ///< the bus or the service does not allow it
  TooLarge = 6,      ///< the request or the answer is larger than the bus takes
  ServiceError = 7,  ///< the service answered with an error
  Unreadable = 8,    ///< the answer is not what the protocol prescribes
};

/// One failure, or none.
struct ESGFailure {
  /// What an application goes by.
  ESGFailureReason reason = ESGFailureReason::None;
  /// The name and the text of the D-Bus error, for logs; empty where there was none. Very long
  /// texts are cut.
  std::string errorName;
  std::string errorText;

  /// Whether there is a failure.
  explicit operator bool() const { return reason != ESGFailureReason::None; }
};

/// Why the last operation of the calling thread failed, of IESGService or of FCESGGuide.h; no
/// failure after one that succeeded, and before the first. After an operation that ended with an
/// exception of the JSON library it is Unreadable. A failure in a connection that is not the
/// library's own is NoAnswer.
///
/// Queries of ESGAsync do not change it: their callbacks get the failure.
///
/// Does not block; any thread may call.
ESG_API ESGFailure ESGLastFailure();

/// A sentence in English, without a line end, for a person to read. Valid for ever.
ESG_API const char* ESGFailureText(ESGFailureReason reason);

#endif
