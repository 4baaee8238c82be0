#ifndef TESTS_CLIENT_H
#define TESTS_CLIENT_H

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <utility>

#include "IPCS/ECIPCBroadcaster.h"
#include "IPCS/EIIPCConnection.h"
#include "IPCS/ESGMessageBuffer.h"
#include "Service.h"

/// The library's ends of the wire in short forms, and what this process uses.
namespace esg::test {

inline ESGMessageBuffer Payload(std::string bytes) {
  ESGMessageBuffer buffer;
  buffer.PushConcatenated(bytes.size(), bytes.data());
  return buffer;
}

inline std::string Bytes(const ESGMessageBuffer& buffer) {
  return {static_cast<char*>(buffer.GetAsVoidFromOffset(0)), buffer.GetFullBufferSize()};
}

inline EIIPCConnection& Connection() { return *EIIPCConnection::GetInstance(); }

/// Result and payload of a call through the process-wide connection.
using Answer = std::pair<int, std::string>;
inline const Answer kFailure{-1, ""};

inline Answer Call(const char* method, const std::string& payload,
                   const std::string& destination = kService) {
  ESGMessageBuffer in = Payload(payload);
  ESGMessageBuffer out;
  const int result = Connection().Call(destination, method, in, out);
  return {result, Bytes(out)};
}

inline std::future<Answer> CallInThread(const char* method, const std::string& payload = "") {
  return std::async(std::launch::async, [=] { return Call(method, payload); });
}

/// An emitter's connection is closed at its end but stays, so there is one for all.
inline ECIPCBroadcaster& TheEmitter() {
  static ECIPCBroadcaster emitter;
  return emitter;
}

inline int OpenDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<int>(std::distance(begin(all), end(all)));
}

inline long ResidentKiB() {
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

}  // namespace esg::test

#endif
