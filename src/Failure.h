#ifndef SRC_FAILURE_H
#define SRC_FAILURE_H

#include "ESGFailure.h"
#include "IPCS/internal/Calls.h"

namespace failure {

/// What an operation notes of its failure. It has no destructor, like what it stands on.
struct Note {
  ESGFailureReason reason = ESGFailureReason::Unreadable;  // which an exception leaves
  esg::internal::CallFailure call;
};

/// That of this thread's last operation.
Note& Last();

ESGFailureReason ReasonOf(const esg::internal::CallFailure& call);
ESGFailure ToFailure(const Note& note);

}  // namespace failure

#endif
