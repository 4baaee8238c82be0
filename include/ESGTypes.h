#ifndef ESG_TYPES_H
#define ESG_TYPES_H

#include <map>

/// @file
/// Types of arguments and results of queries, besides records.

class FCESGProgramInfo;

/// Which programme IESGService::GetProgram returns, relative to a given one.
/// The service gets the numeric value as a signed integer.
enum eRelative_Position : int {
  eRelative_Position_Previous = -1,  ///< the previous one
  eRelative_Position_Current = 0,    ///< the same one, read again
  eRelative_Position_Next = 1,       ///< the next one
};

/// Programmes by the key that the service gives them, in ascending order.
/// esg-guide-service uses the start time as the key.
using ESGProgramMap = std::map<unsigned int, FCESGProgramInfo>;

#endif
