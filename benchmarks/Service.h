#ifndef BENCHMARKS_SERVICE_H
#define BENCHMARKS_SERVICE_H

/// The services that the benchmarks call. Both print a line when they are ready, and do not return.
namespace service {

inline constexpr char kListener[] = "com.velmora.ESGCallListener.Listener";

/// Replies with prepared texts, directly on libdbus: GetPresentProgram, GetProgramList ("duration"
/// is the number of programmes), Echo, and Flood (event number and count), which emits events
/// instead of a reply.
[[noreturn]] void RunBare();
/// Replies to Echo through the library's listener, as kListener.
[[noreturn]] void RunListener();

}  // namespace service

#endif
