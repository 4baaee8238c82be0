#ifndef SRC_FAILURE_H
#define SRC_FAILURE_H

#include "ESGFailure.h"
#include "IPCS/internal/Calls.h"

namespace esg::failure {

/// What an operation stores about its failure. It has no destructor: see CallFailure.
struct Note {
  ESGFailureReason reason = ESGFailureReason::Unreadable;  // remains after an exception
  esg::internal::CallFailure call;
};

/// The failure of this thread's last operation.
Note& Last();

ESGFailureReason ReasonOf(const esg::internal::CallFailure& call);
ESGFailure ToFailure(const Note& note);

}  // namespace esg::failure

#endif
