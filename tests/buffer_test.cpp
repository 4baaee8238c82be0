#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "IPCS/ESGMessageBuffer.h"

// That any sequence of operations does the right thing is what the fuzz target of the buffer looks
// at.

namespace {

std::string BytesOf(const ESGMessageBuffer& buffer) {
  const char* bytes = buffer.GetAsCStr(0);
  return bytes == nullptr ? "" : std::string(bytes, buffer.GetFullBufferSize());
}

TEST(BufferNoBus, GrowsInItsOwnWays) {
  ESGMessageBuffer buffer;
  EXPECT_TRUE(buffer.WriteInt(0x04030201, 0));
  EXPECT_TRUE(buffer.WriteInt(0x08070605, 0));  // inserts
  EXPECT_TRUE(buffer.PushChar('c'));
  char text[] = "xyz";
  EXPECT_TRUE(buffer.WriteConcatenated(2, text, 8));
  EXPECT_TRUE(buffer.WriteConcatenated(0, text, 11));
  EXPECT_TRUE(buffer.PushConcatenated(1, nullptr));
  buffer.Resize(2);  // by two
  buffer.Reserve(99);
  EXPECT_EQ(BytesOf(buffer), std::string("\x5\x6\x7\x8\x1\x2\x3\x4xyc\0\0\0", 14));

  EXPECT_EQ(buffer.PopInt(), 0x08070605);
  buffer.ReadConcatenated(2, text, 6);  // from the place of reading, not from 6
  EXPECT_EQ(std::string(text), "\x1\x2z");

  ESGMessageBuffer other;
  EXPECT_TRUE(other.PushConcatenated(3, text));
  EXPECT_EQ(other.PopChar(), 1);
  EXPECT_TRUE(buffer.PushBuffer(&other));  // what was read, too
  EXPECT_TRUE(other.PushBuffer(&other));
  EXPECT_EQ(BytesOf(other), "\x1\x2z\x1\x2z");
  EXPECT_EQ(BytesOf(buffer).substr(14), "\x1\x2z");

  other.Clean();
  EXPECT_EQ(other.GetBufferSize(), 0U);
  EXPECT_EQ(other.GetAsCStr(0), nullptr);
}

TEST(BufferNoBus, CopiesItsOwnBytesAsTheyWere) {
  ESGMessageBuffer buffer;
  char text[] = "abcdef";
  for (const unsigned int room : {6U, 99U}) {  // moves its storage, or only the later bytes
    buffer.Clean();
    buffer.Reserve(room);
    buffer.PushConcatenated(6, text);
    buffer.WriteConcatenated(2, buffer.GetAsCStr(3), 1);
    EXPECT_EQ(BytesOf(buffer), "adebcdef");
    buffer.PushConcatenated(3, buffer.GetAsCStr(0));
    EXPECT_EQ(BytesOf(buffer), "adebcdefade");
  }
}

TEST(BufferNoBus, TakesAnOffsetBelowZeroWhereTheSumIsInside) {
  ESGMessageBuffer buffer;
  buffer.PushInt(0x04030201);
  buffer.PushInt(0x08070605);
  buffer.PopInt();
  int out = 0;
  buffer.ReadConcatenated(4, &out, -4);
  EXPECT_EQ(out, 0x08070605);
  // Nothing is read in front of the buffer.
  for (const auto& [offset, expected] : {std::pair(-4, 0), {-3, 0x01000000}, {-1, 0x03020100}}) {
    out = -1;
    buffer.ReadInt(&out, offset);
    EXPECT_EQ(out, expected);
  }
}

TEST(BufferNoBus, NeverShrinksWhereASizeHas32Bits) {
  if (sizeof(std::size_t) > sizeof(unsigned int)) {
    GTEST_SKIP() << "no such number here";
  }
  ESGMessageBuffer buffer;
  buffer.PushInt(1);
  EXPECT_THROW(buffer.Resize(~0U), std::length_error);
  EXPECT_EQ(buffer.GetFullBufferSize(), 4U);
}

TEST(BufferNoBus, SaysOnStandardOutputWhatIsMissing) {
  ESGMessageBuffer buffer;
  testing::internal::CaptureStdout();
  EXPECT_EQ(buffer.PopChar(), 0);
  buffer.Resize(3);
  *buffer.GetAsCStr(0) = 'a';
  EXPECT_EQ(buffer.PopInt(), 0);
  EXPECT_EQ(buffer.PopConcatenated(4), nullptr);
  EXPECT_EQ(buffer.PopChar(), 'a');
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Data buffer is smaller than 1 byteData buffer is smaller than 4 bytes"
            "Data buffer is smaller than 4 byte(s)");
  EXPECT_NE(std::unique_ptr<char[]>(buffer.PopConcatenated(0)), nullptr);
}

TEST(BufferNoBusDeathTest, EndsTheProcessOnAWrongOffset) {
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
  EXPECT_DEATH(buffer.ReadInt(out, 5), "");
  EXPECT_DEATH(buffer.ReadConcatenated(~0UL, out, 1), broken(sizeText, "ReadConcatenated("));
  EXPECT_DEATH(buffer.ReadConcatenated(13, out, -4), broken(sizeText, "ReadConcatenated("));
  buffer.PopInt();
  // The bytes would come from beyond the end.
  EXPECT_DEATH(buffer.ReadConcatenated(5, out, 0),
               broken("GetBufferSize() >= sizeOfData", "ReadConcatenated("));
}

}  // namespace
