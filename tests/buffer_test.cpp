#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <stdexcept>
#include <string>

#include "IPCS/ESGMessageBuffer.h"

namespace {

TEST(Buffer, InsertsAnywhereAlsoItsOwnBytesAndReadsFromTheFront) {
  ESGMessageBuffer buffer;
  std::string text = "abcdefgh";
  buffer.Reserve(64);  // an insertion moves bytes in place
  EXPECT_TRUE(buffer.PushConcatenated(text.size(), text.data()));
  EXPECT_EQ(buffer.PopChar(), 'a');
  EXPECT_TRUE(buffer.WriteConcatenated(4, buffer.GetAsCStr(4), 2));  // bytes that it moves
  EXPECT_TRUE(buffer.WriteConcatenated(1, text.data(), 0));          // before the read position
  EXPECT_TRUE(buffer.PushBuffer(&buffer));
  EXPECT_TRUE(buffer.PushConcatenated(2, nullptr));
  const std::string once = "aabefghcdefgh";
  const std::string all = once + once + std::string(2, '\0');
  EXPECT_EQ(std::string(buffer.GetAsCStr(0), buffer.GetFullBufferSize()), all);
  EXPECT_EQ(buffer.GetAsCStr(static_cast<int>(all.size())), nullptr);
  EXPECT_EQ(buffer.GetAsCStr(-1), nullptr);
  // The offset is checked, but the bytes are those at the read position.
  char read[3] = {};
  buffer.ReadConcatenated(3, read, -2);
  EXPECT_EQ(std::string(read, 3), "abe");
  // Bytes before the first one read as zero.
  int number = 0;
  buffer.ReadInt(&number, -2);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(&number), 4), std::string("\0\0aa", 4));
  EXPECT_EQ(std::string(std::unique_ptr<char[]>(buffer.PopConcatenated(5)).get(), 5), "abefg");
  EXPECT_EQ(buffer.GetBufferSize(), all.size() - 6);
  buffer.Clean();
  EXPECT_TRUE(buffer.PushInt(-7));
  EXPECT_EQ(buffer.PopInt(), -7);
}

TEST(Buffer, WritesToStandardOutputWhatIsMissing) {
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
  if (sizeof(std::size_t) == sizeof(unsigned int)) {
    EXPECT_THROW(buffer.Resize(~0U), std::length_error);
  }
}

TEST(BufferDeathTest, EndsTheProcessOnAWrongOffset) {
  ESGMessageBuffer buffer;
  buffer.Resize(8);
  int out[4] = {};
  const auto broken = [](const std::string& expression) {
    return testing::ContainsRegex(
        "include_internal/IPCS/ESGMessageBuffer:.*ESGMessageBuffer::.*"
        ": Assertion `" +
        expression + "' failed.");
  };
  const auto offsetText = broken(R"(\(unsigned int\)offset <= m_bufferData.size\(\))");
  const auto sizeText = broken(R"(m_bufferData.size\(\) >= offset \+ sizeOfData)");
  for (const int offset : {9, -5, INT_MIN, INT_MAX}) {
    EXPECT_DEATH(buffer.WriteInt(3, offset), offsetText);
    EXPECT_DEATH(buffer.WriteConcatenated(0, out, offset), offsetText);
    EXPECT_DEATH(buffer.ReadInt(out, offset),
                 broken("m_bufferData.size\\(\\) >= \\(unsigned int\\)\\(offset \\+ 4\\)"));
    EXPECT_DEATH(buffer.ReadConcatenated(1, out, offset), sizeText);
  }
  EXPECT_DEATH(buffer.ReadConcatenated(~0UL, out, 1), sizeText);
  EXPECT_DEATH(buffer.ReadConcatenated(13, out, -4), sizeText);
  buffer.PopInt();
  // The bytes would come from beyond the end.
  EXPECT_DEATH(buffer.ReadConcatenated(5, out, 0), broken("GetBufferSize\\(\\) >= sizeOfData"));
}

}  // namespace
