#ifndef FC_ESG_PROGRAM_API_H
#define FC_ESG_PROGRAM_API_H

#include "ESGExport.h"

/**
 * @file
 * The present programme of a broadcast service, for C.
 *
 * Rules:
 *
 * 1. A record belongs to the caller from the moment FCESGProgramAPIGetPresentProgram has stored it,
 *    whether that call returned 1 or 0.
 * 2. Release it with FCESGProgramDispose, exactly once; never with free().
 * 3. A record is opaque: never create, copy or change one by other means.
 * 4. Arguments must not be null, except that of FCESGProgramDispose. They are not checked: a null
 *    `globalServiceId` raises a C++ exception, which ends a C program.
 * 5. The function reads `globalServiceId` only during the call and keeps no reference to it.
 * 6. Any thread may call. Different records may be used from different threads at once; one record
 *    must not be disposed of while another thread reads it.
 * 7. FCESGProgramAPIGetPresentProgram blocks like IESGService::GetPresentProgram. The other
 *    functions do not block.
 * 8. A reply of the service with a member of the wrong type raises a C++ exception, which ends a C
 *    program.
 */

#ifdef __cplusplus
class FCESGProgramInfo;
extern "C" {
#else
typedef struct FCESGProgramInfo FCESGProgramInfo;
#endif

/** Queries the programme that is on now on a broadcast service. Returns 1 if it was found, else 0.
 *  Stores a new record in `*program` in both cases; after 0 it reads as zero. */
ESG_API int FCESGProgramAPIGetPresentProgram(const char* globalServiceId,
                                             FCESGProgramInfo** program);

/** The start, in the service's clock: NTP seconds for a broadcast guide. */
ESG_API unsigned int FCESGProgramStartTime(FCESGProgramInfo* program);

/** The length in seconds. */
ESG_API unsigned int FCESGProgramDuration(FCESGProgramInfo* program);

/** Frees a record; a null pointer does nothing. */
ESG_API void FCESGProgramDispose(FCESGProgramInfo* program);

#ifdef __cplusplus
}
#endif

#endif
