#ifndef ESG_MESSAGE_BUFFER_H
#define ESG_MESSAGE_BUFFER_H

#include <ESGExport.h>

#include <vector>

/// The bytes of every message on the bus: written at the back, read from the front in the same
/// order.
///
/// An integer is 4 bytes in the host's byte order, a character 1 byte, a concatenated item its
/// bytes alone: no length, no terminator, no padding. Writer and reader agree on lengths by other
/// means.
///
/// Not for use by two threads at once. Growing raises the standard allocation errors and leaves the
/// buffer as it was.
class ESG_API ESGMessageBuffer {
 public:
  ESGMessageBuffer();
  ~ESGMessageBuffer();

  /// Empties the buffer and starts reading at the front again; keeps the storage.
  void Clean();
  /// Makes room for at least `n` bytes in all; the size stays.
  void Reserve(unsigned int n);
  /// Grows by `n` zero bytes: an increment, not a target size. Never shrinks.
  void Resize(unsigned int n);

  /// Appending; always true. A null `data` appends `size` zero bytes. `data` may be bytes of this
  /// buffer, here and in WriteConcatenated: it copies what they were before.
  bool PushInt(int value);
  bool PushChar(char c);
  bool PushConcatenated(unsigned long size, void* data);
  /// Appends all bytes of `other`, those already read included; `other` may be this buffer.
  bool PushBuffer(ESGMessageBuffer* other);

  /// Inserting before the byte at `offset`; always true. A null `data` inserts zero bytes. An
  /// offset beyond the end ends the process.
  bool WriteInt(int value, int offset);
  bool WriteConcatenated(unsigned long size, void* data, int offset);

  /// Reading without consuming; reading past the end ends the process, as does an `offset` so far
  /// below 0 that offset and size add up to less than 0. ReadInt reads 0 for what lies before the
  /// first byte. ReadConcatenated checks `offset` but copies from the current read position.
  void ReadInt(int* out, int offset);
  void ReadConcatenated(unsigned long size, void* out, int offset);

  /// Consuming from the front. With too few bytes left they say so on standard output, return 0 or
  /// null, and the read position stays.
  char PopChar();
  int PopInt();
  /// The caller frees the result with delete[]; a size of 0 gives a valid, empty allocation.
  char* PopConcatenated(unsigned long size);

  /// The byte at `offset`, or null at or beyond the end. Valid until the buffer changes. No
  /// terminating NUL is added.
  char* GetAsCStr(int offset) const;
  /// Unchecked.
  void* GetAsVoidFromOffset(int offset) const;
  void CopyData(void* dst, int size, int offset);

  /// All bytes.
  unsigned int GetFullBufferSize() const;
  /// All bytes less the read position.
  unsigned int GetBufferSize() const;

 private:
  std::vector<char> m_bufferData;
  unsigned int m_readPosition = 0;
  [[maybe_unused]] bool m_reserved = false;
};

#endif
