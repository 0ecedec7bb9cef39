#include "melvo/importers/zip_reader.h"

#include <zlib.h>

#include <algorithm>
#include <climits>

#include "melvo/importers/charset.h"
#include "melvo/importers/large_buffer.h"
#include "melvo/platform/text.h"

namespace melvo {

namespace {

constexpr std::size_t kEndRecordSize = 22;
// The end record plus the longest comment its 16-bit length can announce.
constexpr std::size_t kEndSearchSpan = kEndRecordSize + 65535;
constexpr std::size_t kCentralHeaderSize = 46;
constexpr std::size_t kLocalHeaderSize = 30;
constexpr std::uint32_t kCentralSignature = 0x02014B50;
constexpr std::uint32_t kLocalSignature = 0x04034B50;

std::uint32_t u16(std::string_view d, std::size_t at) {
  const auto* p = reinterpret_cast<const unsigned char*>(d.data()) + at;
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8;
}

std::uint32_t u32(std::string_view d, std::size_t at) {
  const auto* p = reinterpret_cast<const unsigned char*>(d.data()) + at;
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

// Archives made on Windows in Japan name their members in Shift-JIS without saying so; the
// flag bit for UTF-8 is not trusted either way.
std::string decodeName(std::string_view raw) {
  std::string name;
  if (text::isValidUtf8(raw)) {
    name.assign(raw);
  } else if (auto sjis = charset::decodeShiftJIS(raw)) {
    name = std::move(*sjis);
  } else {
    name = charset::decodeLatin1(raw);
  }
  std::replace(name.begin(), name.end(), '\\', '/');
  return name;
}

std::optional<std::string> inflateRaw(std::string_view in, std::uint64_t outSize) {
  if (outSize < 1) return std::nullopt;
  std::string out = largeString(outSize);
  out.resize(outSize);
  z_stream z{};
  if (inflateInit2(&z, -MAX_WBITS) != Z_OK) return std::nullopt;
  std::size_t produced = 0;
  std::size_t consumed = 0;
  int rc = Z_OK;
  // avail_in and avail_out are 32-bit: feed in slices so that nothing is cut off.
  while (rc == Z_OK && produced < out.size()) {
    const std::size_t inLeft = in.size() - consumed;
    const std::size_t outLeft = out.size() - produced;
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data() + consumed));
    z.avail_in = static_cast<uInt>(std::min<std::size_t>(inLeft, UINT_MAX));
    z.next_out = reinterpret_cast<Bytef*>(out.data() + produced);
    z.avail_out = static_cast<uInt>(std::min<std::size_t>(outLeft, UINT_MAX));
    const uInt availIn = z.avail_in, availOut = z.avail_out;
    rc = inflate(&z, Z_NO_FLUSH);
    consumed += availIn - z.avail_in;
    produced += availOut - z.avail_out;
    if (rc == Z_BUF_ERROR && availIn == z.avail_in && availOut == z.avail_out) break;
    if (rc == Z_BUF_ERROR) rc = Z_OK;
  }
  inflateEnd(&z);
  if (rc != Z_OK && rc != Z_STREAM_END && rc != Z_BUF_ERROR) return std::nullopt;
  if (produced < 1) return std::nullopt;
  out.resize(produced);
  return out;
}

}  // namespace

bool ZipReader::looksLikeZip(std::string_view data) {
  return data.size() >= 4 && data[0] == 'P' && data[1] == 'K' &&
         ((data[2] == 3 && data[3] == 4) || (data[2] == 5 && data[3] == 6));
}

std::optional<std::vector<ZipReader::Entry>> ZipReader::entries(std::string_view data) {
  if (data.size() < kEndRecordSize) return std::nullopt;
  const std::size_t last = data.size() - kEndRecordSize;
  const std::size_t first = data.size() > kEndSearchSpan ? data.size() - kEndSearchSpan : 0;
  std::optional<std::size_t> end;
  for (std::size_t at = last + 1; at-- > first;) {
    if (data[at] == 'P' && data[at + 1] == 'K' && data[at + 2] == 5 && data[at + 3] == 6) {
      end = at;
      break;
    }
  }
  if (!end) return std::nullopt;
  const std::uint32_t count = u16(data, *end + 10);
  std::size_t pos = u32(data, *end + 16);
  std::vector<Entry> list;
  if (count == 0) return list;
  for (std::uint32_t i = 0; i < count; ++i) {
    if (pos > data.size() || data.size() - pos < kCentralHeaderSize) break;
    if (u32(data, pos) != kCentralSignature) break;
    Entry e;
    e.method = static_cast<int>(u16(data, pos + 10));
    e.crc32 = u32(data, pos + 16);
    e.compSize = u32(data, pos + 20);
    e.uncompSize = u32(data, pos + 24);
    const std::size_t nameLength = u16(data, pos + 28);
    const std::size_t extraLength = u16(data, pos + 30);
    const std::size_t commentLength = u16(data, pos + 32);
    e.localOffset = u32(data, pos + 42);
    const std::size_t nameAt = pos + kCentralHeaderSize;
    if (data.size() - nameAt < nameLength) break;
    e.name = decodeName(data.substr(nameAt, nameLength));
    list.push_back(std::move(e));
    pos = nameAt + nameLength + extraLength + commentLength;
  }
  // A directory that announced members but gave none is not an archive we can read.
  if (list.empty()) return std::nullopt;
  return list;
}

std::optional<std::string> ZipReader::read(std::string_view data, std::string_view name) {
  auto list = entries(data);
  if (!list) return std::nullopt;
  for (const Entry& e : *list) {
    if (e.name == name) return read(e, data);
  }
  return std::nullopt;
}

std::optional<std::string> ZipReader::read(const Entry& entry, std::string_view data) {
  const std::uint64_t at = entry.localOffset;
  if (at > data.size() || data.size() - at < kLocalHeaderSize) return std::nullopt;
  if (u32(data, at) != kLocalSignature) return std::nullopt;
  // The local header's own lengths place the data; they may differ from the directory's.
  const std::uint64_t begin = at + kLocalHeaderSize + u16(data, at + 26) + u16(data, at + 28);
  if (begin > data.size() || data.size() - begin < entry.compSize) return std::nullopt;
  if (entry.uncompSize > kMaxMemberSize) return std::nullopt;
  const std::string_view packed = data.substr(begin, entry.compSize);
  switch (entry.method) {
    case 0:
      return std::string(packed);
    case 8:
      if (entry.uncompSize < 1 && !packed.empty()) return std::nullopt;
      return inflateRaw(packed, entry.uncompSize);
    default:
      return std::nullopt;
  }
}

std::uint32_t ZipReader::crc32(std::string_view data) {
  uLong crc = ::crc32(0L, Z_NULL, 0);
  std::size_t at = 0;
  while (at < data.size()) {
    const auto slice = static_cast<uInt>(std::min<std::size_t>(data.size() - at, UINT_MAX));
    crc = ::crc32(crc, reinterpret_cast<const Bytef*>(data.data() + at), slice);
    at += slice;
  }
  return static_cast<std::uint32_t>(crc);
}

}  // namespace melvo
