#ifndef ESG_MESSAGE_BUFFER_H
#define ESG_MESSAGE_BUFFER_H

#include <ESGExport.h>

#include <vector>

/// The payload of a message on the bus: bytes are written at the end and read from the start.
///
/// An integer is 4 bytes in the host's byte order, a character 1 byte, a concatenated item its
/// bytes only: no length, no terminator, no padding. Writer and reader agree on lengths by other
/// means.
///
/// Two threads must not use a buffer at once. If growing raises an allocation error, the buffer is
/// unchanged.
class ESG_API ESGMessageBuffer {
 public:
  ESGMessageBuffer();
  ~ESGMessageBuffer();

  /// Empties the buffer and resets the read position; keeps the storage.
  void Clean();
  /// Makes room for at least `n` bytes in total; does not change the size.
  void Reserve(unsigned int n);
  /// Appends `n` zero bytes: `n` is an increment, not a target size. Never shrinks.
  void Resize(unsigned int n);

  /// Append and return true. A null `data` appends `size` zero bytes. `data` may point into this
  /// buffer, here and in WriteConcatenated: the bytes are copied as they were before.
  bool PushInt(int value);
  bool PushChar(char c);
  bool PushConcatenated(unsigned long size, void* data);
  /// Appends all bytes of `other`, those already read included; `other` may be this buffer.
  bool PushBuffer(ESGMessageBuffer* other);

  /// Insert before the byte at `offset` and return true. A null `data` inserts zero bytes. An
  /// offset beyond the end ends the process.
  bool WriteInt(int value, int offset);
  bool WriteConcatenated(unsigned long size, void* data, int offset);

  /// Read without consuming. Reading past the end ends the process, and so does a negative `offset`
  /// if offset and size add up to less than 0. ReadInt reads 0 for bytes before the first one.
  /// ReadConcatenated checks `offset` but copies from the current read position.
  void ReadInt(int* out, int offset);
  void ReadConcatenated(unsigned long size, void* out, int offset);

  /// Read at the read position and advance it. If too few bytes are left, they print a message to
  /// standard output, return 0 or null, and do not advance.
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

  /// The number of all bytes.
  unsigned int GetFullBufferSize() const;
  /// The number of bytes after the read position.
  unsigned int GetBufferSize() const;

 private:
  std::vector<char> m_bufferData;
  unsigned int m_readPosition = 0;
  bool m_reserved = false;
};

#endif
