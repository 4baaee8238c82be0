#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <stdexcept>
#include <string>

#include "IPCS/ESGMessageBuffer.h"

// That any sequence of operations does the right thing is what the buffer's fuzz target shows.

namespace {

TEST(Buffer, NeverShrinksWhereASizeHas32Bits) {
  if (sizeof(std::size_t) > sizeof(unsigned int)) {
    GTEST_SKIP() << "no such number here";
  }
  ESGMessageBuffer buffer;
  buffer.PushInt(1);
  EXPECT_THROW(buffer.Resize(~0U), std::length_error);
  EXPECT_EQ(buffer.GetFullBufferSize(), 4U);
}

TEST(Buffer, SaysOnStandardOutputWhatIsMissing) {
  ESGMessageBuffer buffer;
  testing::internal::CaptureStdout();
  EXPECT_EQ(buffer.PopChar(), 0);
  buffer.Resize(1);
  buffer.Resize(2);  // by two
  *buffer.GetAsCStr(0) = 'a';
  EXPECT_EQ(buffer.PopInt(), 0);
  EXPECT_EQ(buffer.PopConcatenated(4), nullptr);
  EXPECT_EQ(buffer.PopChar(), 'a');
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Data buffer is smaller than 1 byteData buffer is smaller than 4 bytes"
            "Data buffer is smaller than 4 byte(s)");
  EXPECT_NE(std::unique_ptr<char[]>(buffer.PopConcatenated(0)), nullptr);
  EXPECT_EQ(buffer.GetFullBufferSize(), 3U);
}

TEST(BufferDeathTest, EndsTheProcessOnAWrongOffset) {
  ESGMessageBuffer buffer;
  buffer.Resize(8);
  int out[4] = {};
  const auto broken = [](const std::string& expression, const std::string& function) {
    return testing::AllOf(testing::HasSubstr("include_internal/IPCS/ESGMessageBuffer:"),
                          testing::HasSubstr("ESGMessageBuffer::" + function),
                          testing::HasSubstr(": Assertion `" + expression + "' failed."));
  };
  const char* offsetText = "(unsigned int)offset <= m_bufferData.size()";
  const char* sizeText = "m_bufferData.size() >= offset + sizeOfData";
  for (const int offset : {9, -5, INT_MIN, INT_MAX}) {
    EXPECT_DEATH(buffer.WriteInt(3, offset), broken(offsetText, "WriteInt(int, int)"));
    EXPECT_DEATH(buffer.WriteConcatenated(0, out, offset),
                 broken(offsetText, "WriteConcatenated("));
    EXPECT_DEATH(buffer.ReadInt(out, offset),
                 broken("m_bufferData.size() >= (unsigned int)(offset + 4)", "ReadInt("));
    EXPECT_DEATH(buffer.ReadConcatenated(1, out, offset), broken(sizeText, "ReadConcatenated("));
  }
  EXPECT_DEATH(buffer.ReadConcatenated(~0UL, out, 1), broken(sizeText, "ReadConcatenated("));
  EXPECT_DEATH(buffer.ReadConcatenated(13, out, -4), broken(sizeText, "ReadConcatenated("));
  buffer.PopInt();
  // The bytes would come from beyond the end.
  EXPECT_DEATH(buffer.ReadConcatenated(5, out, 0),
               broken("GetBufferSize() >= sizeOfData", "ReadConcatenated("));
}

}  // namespace
