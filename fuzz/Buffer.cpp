// Any sequence of operations on the message buffer, each done to a plain string as well.

#include <memory>

#include "Fuzz.h"
#include "IPCS/ESGMessageBuffer.h"

namespace {

fuzz::Goal tooShort{"a pop of more than there is"};
fuzz::Goal popped{"a pop of several bytes"};
fuzz::Goal inserted{"an insertion before the read position"};
fuzz::Goal ownBytes{"an insertion of the buffer's own bytes"};
fuzz::Goal below{"a read with an offset below 0"};

/// What the buffer should be.
struct Model {
  std::size_t Unread() const { return bytes.size() - position; }
  /// The next bytes; zeros where there are fewer.
  std::string Pop(std::size_t size) {
    if (size > Unread()) {
      tooShort.reached = true;
      return std::string(size, '\0');
    }
    popped.reached |= size > 1;
    position += size;
    return bytes.substr(position - size, size);
  }

  std::string bytes;
  std::size_t position = 0;
};

std::string Raw(int value) { return {reinterpret_cast<const char*>(&value), sizeof(value)}; }

void Write(ESGMessageBuffer& buffer, Model& model, unsigned int operation, fuzz::Input& input) {
  const int number = input.Take<int>();
  std::string data = input.Bytes(input.Take<std::uint8_t>() % 16U);
  std::size_t offset = model.bytes.size();
  char* bytes = data.data();
  if (number < 0 && !model.bytes.empty()) {
    const std::size_t from = static_cast<unsigned int>(number) % model.bytes.size();
    data = model.bytes.substr(from, data.size());
    bytes = buffer.GetAsCStr(static_cast<int>(from));
  }
  if (operation == 0) {
    assert(buffer.PushInt(number));
    data = Raw(number);
  } else if (operation == 1) {
    assert(buffer.PushConcatenated(data.size(), bytes));
  } else if (operation == 2) {
    assert(buffer.PushConcatenated(data.size(), nullptr));
    data.assign(data.size(), '\0');
  } else if (operation == 3) {
    assert(offset > 4096 || buffer.PushBuffer(&buffer));
    data = offset > 4096 ? "" : model.bytes;
  } else {
    offset = static_cast<unsigned int>(number) % (offset + 1);
    assert(buffer.WriteConcatenated(data.size(), bytes, static_cast<int>(offset)));
    ownBytes.reached |= bytes != data.data() && !data.empty();
    inserted.reached |= offset < model.position && !data.empty();
  }
  model.bytes.insert(offset, data);
}

void Read(ESGMessageBuffer& buffer, Model& model, unsigned int operation, fuzz::Input& input) {
  const std::size_t size = input.Take<std::uint8_t>() % 16U;
  const std::size_t offset = model.position / 2;
  const bool isThere = size <= model.Unread();
  std::string bytes(size, '\0');
  if (operation == 5) {
    assert(Raw(buffer.PopInt()) == model.Pop(sizeof(int)));
  } else if (operation == 6) {
    assert(std::string(1, buffer.PopChar()) == model.Pop(1));
  } else if (operation == 7) {
    const std::unique_ptr<char[]> taken(buffer.PopConcatenated(size));
    assert((taken != nullptr) == isThere);
    assert(model.Pop(size) == (isThere ? std::string(taken.get(), size) : bytes));
  } else if (operation == 8) {
    // Bytes before the first one read as zero.
    int number = 0;
    buffer.ReadInt(&number, static_cast<int>(offset) - 4);
    assert(Raw(number) == (std::string(4, '\0') + model.bytes).substr(offset, sizeof(number)));
  } else if (operation == 9 && isThere) {
    // The offset is checked, but the bytes are those at the read position.
    const int checked = static_cast<int>(offset) - static_cast<int>(size);
    below.reached |= checked < 0;
    buffer.ReadConcatenated(size, bytes.data(), checked);
    assert(bytes == model.bytes.substr(model.position, size));
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  ESGMessageBuffer buffer;
  Model model;
  for (fuzz::Input input(data, size); !input.rest.empty();) {
    const unsigned int operation = input.Take<std::uint8_t>() % 11U;
    if (operation == 10) {
      buffer.Clean();
      model = {};
    } else {
      (operation < 5 ? Write : Read)(buffer, model, operation, input);
    }
    const std::size_t end = model.bytes.size();
    assert(buffer.GetFullBufferSize() == end && buffer.GetBufferSize() == model.Unread());
    assert(buffer.GetAsCStr(static_cast<int>(end)) == nullptr && buffer.GetAsCStr(-1) == nullptr);
    assert(end == 0 || std::string(buffer.GetAsCStr(0), end) == model.bytes);
  }
  return 0;
}
