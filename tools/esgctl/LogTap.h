#ifndef ESGCTL_LOG_TAP_H
#define ESGCTL_LOG_TAP_H

#include <string>
#include <vector>

/// The library's log, caught before it reaches the platform.
///
/// The library's operations say no more than true or false, and the difference between "the service
/// has no such programme" and "something failed" is that a failure leaves an error line in the log.
/// The log goes through one function of the platform, which the program defines itself: a
/// definition in the program precedes those in shared objects, so the library calls this one, on a
/// device as well.
namespace esgctl::log_tap {

/// Whether lines also go to standard error.
void SetVerbose(bool wanted);

/// Forgets the error lines caught so far.
void Clear();

/// The error lines since then, without line ends; the first few of very many.
std::vector<std::string> Errors();

}  // namespace esgctl::log_tap

#endif
