#include "IPCS/ESGMessageBuffer.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <functional>

#include "Assertion.h"

namespace {

constexpr char kSource[] = "include_internal/IPCS/ESGMessageBuffer";
constexpr char kOffsetInside[] = "(unsigned int)offset <= m_bufferData.size()";

/// Whether offset + size lies between 0 and `total`; avoids an overflow of the sum.
bool EndsInside(unsigned long size, int offset, std::size_t total) {
  if (offset < 0) {
    const unsigned int before = 0U - static_cast<unsigned int>(offset);
    return size >= before && size - before <= total;
  }
  const auto start = static_cast<unsigned int>(offset);
  return start <= total && size <= total - start;
}

void Insert(std::vector<char>& bytes, std::size_t offset, unsigned long size, const void* data) {
  const auto position = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
  const auto* first = static_cast<const char*>(data);
  const std::less<> before;
  if (first == nullptr) {
    bytes.insert(position, size, '\0');
  } else if (!before(first, bytes.data()) && before(first, bytes.data() + bytes.size())) {
    // Growing would move the bytes to insert.
    const std::vector<char> copy(first, first + size);
    bytes.insert(position, copy.begin(), copy.end());
  } else {
    bytes.insert(position, first, first + size);
  }
}

void Extract(ESGMessageBuffer& buffer, unsigned int& readPosition, unsigned long size, void* out) {
  buffer.CopyData(out, static_cast<int>(size), static_cast<int>(readPosition));
  readPosition += static_cast<unsigned int>(size);
}

}  // namespace

// The reserved field is used once, here: GCC 10 ignores an attribute that calls it unused, and
// warns.
ESGMessageBuffer::ESGMessageBuffer() { static_cast<void>(m_reserved); }

ESGMessageBuffer::~ESGMessageBuffer() = default;

void ESGMessageBuffer::Clean() {
  m_bufferData.clear();
  m_readPosition = 0;
}

void ESGMessageBuffer::Reserve(unsigned int n) { m_bufferData.reserve(n); }

void ESGMessageBuffer::Resize(unsigned int n) {
  // insert() checks for the overflow that a sum of sizes could have on 32 bits.
  m_bufferData.insert(m_bufferData.end(), n, '\0');
}

bool ESGMessageBuffer::PushInt(int value) { return PushConcatenated(sizeof(value), &value); }

bool ESGMessageBuffer::PushChar(char c) { return PushConcatenated(sizeof(c), &c); }

bool ESGMessageBuffer::PushConcatenated(unsigned long size, void* data) {
  Insert(m_bufferData, m_bufferData.size(), size, data);
  return true;
}

bool ESGMessageBuffer::PushBuffer(ESGMessageBuffer* other) {
  return PushConcatenated(other->m_bufferData.size(), other->m_bufferData.data());
}

bool ESGMessageBuffer::WriteInt(int value, int offset) {
  ESG_ASSERT(static_cast<unsigned int>(offset) <= m_bufferData.size(), kOffsetInside, kSource);
  Insert(m_bufferData, static_cast<unsigned int>(offset), sizeof(value), &value);
  return true;
}

bool ESGMessageBuffer::WriteConcatenated(unsigned long size, void* data, int offset) {
  ESG_ASSERT(static_cast<unsigned int>(offset) <= m_bufferData.size(), kOffsetInside, kSource);
  Insert(m_bufferData, static_cast<unsigned int>(offset), size, data);
  return true;
}

void ESGMessageBuffer::ReadInt(int* out, int offset) {
  ESG_ASSERT(EndsInside(sizeof(*out), offset, m_bufferData.size()),
             "m_bufferData.size() >= (unsigned int)(offset + 4)", kSource);
  // This allows offsets from -4 to -1; bytes before the first one read as 0.
  const int missing = std::max(-offset, 0);
  *out = 0;
  CopyData(reinterpret_cast<char*>(out) + missing, static_cast<int>(sizeof(*out)) - missing,
           offset + missing);
}

void ESGMessageBuffer::ReadConcatenated(unsigned long size, void* out, int offset) {
  ESG_ASSERT(EndsInside(size, offset, m_bufferData.size()),
             "m_bufferData.size() >= offset + sizeOfData", kSource);
  // The bytes come from the read position, whatever the offset, so they must exist there as well.
  ESG_ASSERT(size <= GetBufferSize(), "GetBufferSize() >= sizeOfData", kSource);
  CopyData(out, static_cast<int>(size), static_cast<int>(m_readPosition));
}

char ESGMessageBuffer::PopChar() {
  char c = 0;
  if (GetBufferSize() < sizeof(c)) {
    std::printf("Data buffer is smaller than 1 byte");
    return 0;
  }
  Extract(*this, m_readPosition, sizeof(c), &c);
  return c;
}

int ESGMessageBuffer::PopInt() {
  int value = 0;
  if (GetBufferSize() < sizeof(value)) {
    std::printf("Data buffer is smaller than 4 bytes");
    return 0;
  }
  Extract(*this, m_readPosition, sizeof(value), &value);
  return value;
}

char* ESGMessageBuffer::PopConcatenated(unsigned long size) {
  if (size > GetBufferSize()) {
    std::printf("Data buffer is smaller than %lu byte(s)", size);
    return nullptr;
  }
  char* bytes = new char[size];
  Extract(*this, m_readPosition, size, bytes);
  return bytes;
}

char* ESGMessageBuffer::GetAsCStr(int offset) const {
  return static_cast<unsigned int>(offset) < m_bufferData.size()
             ? static_cast<char*>(GetAsVoidFromOffset(offset))
             : nullptr;
}

void* ESGMessageBuffer::GetAsVoidFromOffset(int offset) const {
  // The caller may write through the address, whatever the constness of the buffer.
  return const_cast<char*>(m_bufferData.data()) + offset;
}

// NOLINTNEXTLINE(readability-make-member-function-const): part of the interface
void ESGMessageBuffer::CopyData(void* dst, int size, int offset) {
  // The data pointer of an empty buffer may be null.
  if (size != 0) {
    std::memcpy(dst, GetAsVoidFromOffset(offset), static_cast<std::size_t>(size));
  }
}

unsigned int ESGMessageBuffer::GetFullBufferSize() const {
  return static_cast<unsigned int>(m_bufferData.size());
}

unsigned int ESGMessageBuffer::GetBufferSize() const {
  return GetFullBufferSize() - m_readPosition;
}
