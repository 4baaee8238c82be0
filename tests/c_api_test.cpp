#include <gtest/gtest.h>

#include <string>

#include "FCESGProgramAPI.h"
#include "LogCapture.h"
#include "RawPeer.h"

extern "C" int CheckPresentProgram(const char* id, int found, unsigned int start,
                                   unsigned int duration);

namespace {

TEST(CInterface, HandsOutARecordWhetherItWasFoundOrNot) {
  EXPECT_EQ(CheckPresentProgram("urn:a", 0, 0, 0), 0);  // no service
  RawPeer service("com.velmora.ESGCallListener", [](DBusMessage* call) {
    const bool found = ReadBody(call).bytes.find("\"urn:a\"") != std::string::npos;
    return MakeReply(call, 1,
                     found ? R"({"ret":true,"Start":4294967295,"duration":60})"
                           : R"({"ret":false,"Start":1,"duration":2})");
  });
  EXPECT_EQ(CheckPresentProgram("urn:a", 1, 4294967295, 60), 0);
  EXPECT_EQ(CheckPresentProgram("", 0, 0, 0), 0);
  EXPECT_EQ(log_capture::Count("FCESGProgramDispose("), 9);
  EXPECT_EQ(log_capture::Count(" > Free: (nil)\n"), 3);
}

}  // namespace
