#ifndef TESTS_CLIENT_H
#define TESTS_CLIENT_H

#include <unistd.h>

#include <fstream>
#include <future>
#include <string>
#include <utility>

#include "IPCS/ECIPCBroadcaster.h"
#include "IPCS/EIIPCConnection.h"
#include "IPCS/ESGMessageBuffer.h"
#include "Service.h"

/// The library's side of the protocol in short forms, and what this process uses.
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

/// The result and the payload of a call on the process-wide connection.
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

/// One for all, because an emitter keeps the memory of its connection.
inline ECIPCBroadcaster& TheEmitter() {
  static ECIPCBroadcaster emitter;
  return emitter;
}

inline long ResidentKiB() {
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

}  // namespace esg::test

#endif
