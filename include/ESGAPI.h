#ifndef ESG_API_H
#define ESG_API_H

#include "ESGExport.h"

class IESGService;

/// The entry point for C++ applications.
class ESG_API ESGAPI {
 public:
  /// The process-wide service interface. The library owns it: keep the pointer, never delete it.
  ///
  /// Does not block and does not touch the bus; the first query does. The object is created without
  /// a lock, so call this once before several threads use the interface.
  static IESGService* GetESGServiceAPI();
};

#endif
