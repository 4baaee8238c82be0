#include <gtest/gtest.h>

#include "ChildProgram.h"
#include "RawPeer.h"

namespace {

TEST(Consumer, RunsWithAnInstalledLibrary) {
  RawPeer service("com.velmora.ESGCallListener", [](DBusMessage* call) {
    return MakeReply(call, 1,
                     R"({"ret": true, "title": "News", "Start": 3900000000, "duration": 1800})");
  });
  const std::string scratch = SCRATCH;
  const std::string libraries = "LD_LIBRARY_PATH=" + scratch + "/moved/" LIBDIR;
  EXPECT_EQ(ChildProgram({"env", libraries, scratch + "/pc-c"}).Wait(), 0);
  EXPECT_EQ(ChildProgram({"env", libraries, scratch + "/pc-cpp"}).Wait(), 0);
  EXPECT_EQ(ChildProgram({scratch + "/cmake/consumer-c"}).Wait(), 0);
  EXPECT_EQ(ChildProgram({scratch + "/cmake/consumer-cpp"}).Wait(), 0);
  EXPECT_EQ(service.Calls(), 4);
}

}  // namespace
