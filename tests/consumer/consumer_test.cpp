#include "BusTest.h"

namespace {

using namespace esg::test;
using Consumer = OnBus;

TEST_F(Consumer, RunsWithAnInstalledLibrary) {
  const Service service(Service::Reply(R"({"ret":true,"title":"News"})"),
                        "com.velmora.ESGCallListener");
  const std::string scratch = SCRATCH;
  const std::string libraries = "LD_LIBRARY_PATH=" + scratch + "/moved/" LIBDIR;
  for (const char* folder : {"", "/package", "/whole/examples"}) {
    const std::string programs = scratch + folder + "/example-";
    EXPECT_EQ(ChildProgram({"env", libraries, "TZ=UTC", programs + "now", "urn:a"}).ReadLine(),
              "from  2036-02-07 06:28:16");
    EXPECT_EQ(ChildProgram({"env", libraries, programs + "query", "urn:a"}).ReadLine(), "News");
  }
}

}  // namespace
