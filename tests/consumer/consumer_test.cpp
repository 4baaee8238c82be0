#include "BusTest.h"

namespace {

using namespace esg::test;
using Consumer = OnBus;

TEST_F(Consumer, RunsWithAnInstalledLibrary) {
  Service service(
      Service::Reply(R"({"ret": true, "title": "News", "Start": 3900000000, "duration": 1800})"),
      "com.velmora.ESGCallListener");
  const std::string scratch = SCRATCH;
  const std::string libraries = "LD_LIBRARY_PATH=" + scratch + "/moved/" LIBDIR;
  EXPECT_EQ(ChildProgram({"env", libraries, scratch + "/pc-c"}).Wait(), 0);
  EXPECT_EQ(ChildProgram({"env", libraries, scratch + "/pc-cpp"}).Wait(), 0);
  EXPECT_EQ(ChildProgram({scratch + "/cmake/consumer-c"}).Wait(), 0);
  EXPECT_EQ(ChildProgram({scratch + "/cmake/consumer-cpp"}).Wait(), 0);
  EXPECT_EQ(ChildProgram({scratch + "/fetched/consumer-c"}).Wait(), 0);
  EXPECT_EQ(ChildProgram({"env", libraries, scratch + "/meson/consumer-cpp"}).Wait(), 0);
  EXPECT_EQ(service.Peer().Calls(), 6);
}

}  // namespace
