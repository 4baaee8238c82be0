#include "Unit.h"

#include <zlib.h>

#include <algorithm>
#include <memory>
#include <new>

namespace esg::guide {
namespace {

constexpr std::size_t kHeader = 9;
constexpr std::size_t kTableEntry = 12;
constexpr std::size_t kMaxParts = 500000;
constexpr std::size_t kPartHeader = 2;  ///< encoding and kind, before the text

/// Numbers are big-endian.
std::size_t Number(std::string_view bytes, std::size_t offset, std::size_t size) {
  std::size_t number = 0;
  for (const char byte : bytes.substr(offset, size)) {
    number = number << 8 | static_cast<unsigned char>(byte);
  }
  return number;
}

enum class Kind { kNone, kOther, kGuide };

/// What can start at `offset`. Text cannot be taken for a start: the first byte of one is never a
/// character.
Kind KindAt(std::string_view unit, std::size_t offset) {
  constexpr std::size_t kXml = 0;
  constexpr std::size_t kLastEncoding = 3;
  constexpr std::size_t kSchedule = 3;
  constexpr std::size_t kLastKind = 8;
  if (unit.size() < offset + kPartHeader + 1) {
    return Kind::kNone;
  }
  const std::size_t encoding = Number(unit, offset, 1);
  if (encoding != kXml) {
    return encoding <= kLastEncoding ? Kind::kOther : Kind::kNone;
  }
  const std::size_t kind = Number(unit, offset + 1, 1);
  constexpr std::string_view kFirstOfText = "<\xef\xfe\xff \t\r\n";
  if (kind == 0 || kind > kLastKind ||
      kFirstOfText.find(unit[offset + kPartHeader]) == std::string_view::npos) {
    return Kind::kNone;
  }
  return kind <= kSchedule ? Kind::kGuide : Kind::kOther;
}

}  // namespace

bool IsGzip(std::string_view bytes) { return bytes.substr(0, 2) == "\x1f\x8b"; }

std::string Unpack(std::string& bytes) {
  constexpr int kGzip = 15 + 16;
  z_stream stream{};
  if (inflateInit2(&stream, kGzip) != Z_OK) {
    throw std::bad_alloc();
  }
  const std::unique_ptr<z_stream, int (*)(z_stream*)> end(&stream, &inflateEnd);
  stream.next_in = reinterpret_cast<Bytef*>(bytes.data());
  stream.avail_in = static_cast<uInt>(bytes.size());
  std::string unpacked;
  char block[std::size_t{16} << 10];
  int result = Z_OK;
  while (result == Z_OK) {
    stream.next_out = reinterpret_cast<Bytef*>(block);
    stream.avail_out = sizeof(block);
    result = inflate(&stream, Z_NO_FLUSH);
    unpacked.append(block, sizeof(block) - stream.avail_out);
    if (unpacked.size() > kMaxFile) {
      bytes.clear();
      return "unpacks to more than " + std::to_string(kMaxFile >> 20) + " MiB";
    }
  }
  bytes.swap(unpacked);
  return result == Z_STREAM_END ? ""
                                : "cut off or damaged: it unpacks to " +
                                      std::to_string(bytes.size()) + " bytes and then fails";
}

bool Divide(std::string_view unit, std::vector<Part>& parts,
            const std::function<void(const std::string& line)>& report) {
  if (unit.size() < kHeader || Number(unit, 4, 2) != 0) {
    return false;
  }
  const std::size_t extension = Number(unit, 0, 4);
  const std::size_t count = Number(unit, 6, 3);
  const std::size_t base = kHeader + count * kTableEntry;
  if (base > unit.size()) {
    report("its table of " + std::to_string(count) + " fragments is longer than the unit");
    return true;
  }
  if (extension != 0 && extension >= base && extension <= unit.size()) {
    unit = unit.substr(0, extension);
  } else if (extension != 0) {
    report("its extension does not start where it says; ignored");
  }
  std::vector<std::size_t> starts;
  std::size_t wrong = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t start = base + Number(unit, kHeader + i * kTableEntry + 8, 4);
    if (KindAt(unit, start) != Kind::kNone) {
      starts.push_back(start);
    } else {
      ++wrong;
    }
  }
  if (wrong != 0) {
    report(std::to_string(wrong) + " of its " + std::to_string(count) +
           " fragments are not where it says, left out");
  }
  std::sort(starts.begin(), starts.end());
  starts.erase(std::unique(starts.begin(), starts.end()), starts.end());
  starts.push_back(unit.size());
  for (std::size_t i = 0; i + 1 < starts.size(); ++i) {
    if (parts.size() == kMaxParts) {
      report("only its first " + std::to_string(kMaxParts) + " fragments are read");
      break;
    }
    if (KindAt(unit, starts[i]) == Kind::kGuide) {
      const std::size_t text = starts[i] + kPartHeader;
      parts.push_back({text, starts[i + 1] - text});
    }
  }
  return true;
}

}  // namespace esg::guide
