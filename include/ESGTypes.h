#ifndef ESG_TYPES_H
#define ESG_TYPES_H

#include <map>

/// @file
/// What queries take and give besides records.

class FCESGProgramInfo;

/// Which programme IESGService::GetProgram wants, relative to a given one.
/// The numeric value travels to the service as a signed integer.
enum eRelative_Position : int {
  eRelative_Position_Previous = -1,  ///< the one before
  eRelative_Position_Current = 0,    ///< the same one, read again
  eRelative_Position_Next = 1,       ///< the one after
};

/// Programmes by the key that the service gives them, in ascending order.
/// The guide service uses the start time as the key.
using ESGProgramMap = std::map<unsigned int, FCESGProgramInfo>;

#endif
