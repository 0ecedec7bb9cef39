#include "support/zip_writer.h"

#include <zlib.h>

#include <stdexcept>

namespace melvo::test {

namespace {

void put16(std::string& out, std::uint32_t v) {
  out += static_cast<char>(v & 0xFF);
  out += static_cast<char>((v >> 8) & 0xFF);
}

void put32(std::string& out, std::uint32_t v) {
  put16(out, v & 0xFFFF);
  put16(out, v >> 16);
}

}  // namespace

std::string deflateRaw(std::string_view data) {
  z_stream z{};
  if (deflateInit2(&z, 6, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK)
    throw std::runtime_error("deflateInit2");
  std::string out(deflateBound(&z, data.size()), '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  z.avail_in = static_cast<uInt>(data.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  const int rc = deflate(&z, Z_FINISH);
  out.resize(z.total_out);
  deflateEnd(&z);
  if (rc != Z_STREAM_END) throw std::runtime_error("deflate");
  return out;
}

std::string makeZip(const std::vector<ZipMember>& members, std::string_view comment) {
  std::string out, directory;
  for (const ZipMember& m : members) {
    const std::string packed = m.method == 8 ? deflateRaw(m.data) : m.data;
    const std::uint32_t crc = m.crc.value_or(static_cast<std::uint32_t>(::crc32(
        0, reinterpret_cast<const Bytef*>(m.data.data()), static_cast<uInt>(m.data.size()))));
    const std::uint32_t size = m.uncompSize.value_or(static_cast<std::uint32_t>(m.data.size()));
    const auto offset = static_cast<std::uint32_t>(out.size());

    put32(out, 0x04034B50);
    put16(out, 20);
    put16(out, 0);
    put16(out, static_cast<std::uint32_t>(m.method));
    put32(out, 0);  // time and date
    put32(out, crc);
    put32(out, static_cast<std::uint32_t>(packed.size()));
    put32(out, size);
    put16(out, static_cast<std::uint32_t>(m.name.size()));
    put16(out, static_cast<std::uint32_t>(m.localExtra.size()));
    out += m.name;
    out += m.localExtra;
    out += packed;

    put32(directory, 0x02014B50);
    put16(directory, 20);
    put16(directory, 20);
    put16(directory, 0);
    put16(directory, static_cast<std::uint32_t>(m.method));
    put32(directory, 0);
    put32(directory, crc);
    put32(directory, static_cast<std::uint32_t>(packed.size()));
    put32(directory, size);
    put16(directory, static_cast<std::uint32_t>(m.name.size()));
    put16(directory, 0);  // extra
    put16(directory, 0);  // comment
    put16(directory, 0);  // disk
    put16(directory, 0);  // internal attributes
    put32(directory, 0);  // external attributes
    put32(directory, offset);
    directory += m.name;
  }
  const auto directoryAt = static_cast<std::uint32_t>(out.size());
  out += directory;
  put32(out, 0x06054B50);
  put16(out, 0);
  put16(out, 0);
  put16(out, static_cast<std::uint32_t>(members.size()));
  put16(out, static_cast<std::uint32_t>(members.size()));
  put32(out, static_cast<std::uint32_t>(directory.size()));
  put32(out, directoryAt);
  put16(out, static_cast<std::uint32_t>(comment.size()));
  out += comment;
  return out;
}

}  // namespace melvo::test
