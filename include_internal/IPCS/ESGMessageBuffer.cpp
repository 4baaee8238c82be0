#include "IPCS/ESGMessageBuffer.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "Assertion.h"

namespace {

constexpr char kSource[] = "include_internal/IPCS/ESGMessageBuffer";
constexpr char kOffsetInside[] = "(unsigned int)offset <= m_bufferData.size()";

/// Whether `size` bytes from `offset` lie inside `total` bytes. A negative offset counts as huge.
bool Inside(unsigned long size, int offset, std::size_t total) {
  const auto start = static_cast<unsigned int>(offset);
  return start <= total && size <= total - start;
}

}  // namespace

ESGMessageBuffer::ESGMessageBuffer() = default;

ESGMessageBuffer::~ESGMessageBuffer() = default;

void ESGMessageBuffer::Clean() {
  m_bufferData.clear();
  m_readPosition = 0;
}

void ESGMessageBuffer::Reserve(unsigned int n) { m_bufferData.reserve(n); }

void ESGMessageBuffer::Resize(unsigned int n) { m_bufferData.resize(m_bufferData.size() + n); }

bool ESGMessageBuffer::PushInt(int value) { return PushConcatenated(sizeof(value), &value); }

bool ESGMessageBuffer::PushChar(char c) { return PushConcatenated(sizeof(c), &c); }

bool ESGMessageBuffer::PushConcatenated(unsigned long size, void* data) {
  Insert(m_bufferData.size(), size, data);
  return true;
}

bool ESGMessageBuffer::PushBuffer(ESGMessageBuffer* other) {
  if (other == this) {
    // Growing may move the bytes that are being copied.
    std::vector<char> bytes = m_bufferData;
    return PushConcatenated(bytes.size(), bytes.data());
  }
  return PushConcatenated(other->m_bufferData.size(), other->m_bufferData.data());
}

bool ESGMessageBuffer::WriteInt(int value, int offset) {
  ESG_ASSERT(Inside(0, offset, m_bufferData.size()), kOffsetInside, kSource);
  Insert(static_cast<unsigned int>(offset), sizeof(value), &value);
  return true;
}

bool ESGMessageBuffer::WriteConcatenated(unsigned long size, void* data, int offset) {
  ESG_ASSERT(Inside(0, offset, m_bufferData.size()), kOffsetInside, kSource);
  Insert(static_cast<unsigned int>(offset), size, data);
  return true;
}

void ESGMessageBuffer::ReadInt(int* out, int offset) {
  ESG_ASSERT(Inside(sizeof(*out), offset, m_bufferData.size()),
             "m_bufferData.size() >= (unsigned int)(offset + 4)", kSource);
  CopyData(out, sizeof(*out), offset);
}

void ESGMessageBuffer::ReadConcatenated(unsigned long size, void* out, int offset) {
  // The caller vouches for the offset, but the bytes come from the read position: both must fit.
  ESG_ASSERT(Inside(size, offset, m_bufferData.size()) && size <= GetBufferSize(),
             "m_bufferData.size() >= offset + sizeOfData", kSource);
  CopyData(out, static_cast<int>(size), static_cast<int>(m_readPosition));
}

char ESGMessageBuffer::PopChar() {
  char c = 0;
  if (GetBufferSize() < sizeof(c)) {
    std::printf("Data buffer is smaller than 1 byte");
    return 0;
  }
  Take(sizeof(c), &c);
  return c;
}

int ESGMessageBuffer::PopInt() {
  int value = 0;
  if (GetBufferSize() < sizeof(value)) {
    std::printf("Data buffer is smaller than 4 bytes");
    return 0;
  }
  Take(sizeof(value), &value);
  return value;
}

char* ESGMessageBuffer::PopConcatenated(unsigned long size) {
  if (size > GetBufferSize()) {
    std::printf("Data buffer is smaller than %lu byte(s)", size);
    return nullptr;
  }
  char* bytes = new char[size];
  Take(size, bytes);
  return bytes;
}

char* ESGMessageBuffer::GetAsCStr(int offset) const {
  return Inside(1, offset, m_bufferData.size()) ? static_cast<char*>(GetAsVoidFromOffset(offset))
                                                : nullptr;
}

void* ESGMessageBuffer::GetAsVoidFromOffset(int offset) const {
  // The address is the caller's to write through, whatever the constness of the buffer.
  return const_cast<char*>(m_bufferData.data()) + offset;
}

// NOLINTNEXTLINE(readability-make-member-function-const): part of the interface
void ESGMessageBuffer::CopyData(void* dst, int size, int offset) {
  // An empty buffer may have no bytes to point at.
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

void ESGMessageBuffer::Insert(std::size_t offset, unsigned long size, const void* data) {
  const auto position = m_bufferData.begin() + static_cast<std::ptrdiff_t>(offset);
  if (data == nullptr) {
    m_bufferData.insert(position, size, '\0');
  } else {
    const char* bytes = static_cast<const char*>(data);
    m_bufferData.insert(position, bytes, bytes + size);
  }
}

void ESGMessageBuffer::Take(unsigned long size, void* out) {
  CopyData(out, static_cast<int>(size), static_cast<int>(m_readPosition));
  m_readPosition += static_cast<unsigned int>(size);
}
