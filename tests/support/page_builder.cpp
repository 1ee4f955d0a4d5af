// Test-data builder: compression and packed pages.
#include <snappy-c.h>
#include <zlib.h>

#include <cstring>
#include <stdexcept>

#include "tests/support/data_builder.h"

namespace nmb::test {

// ---------------------------------------------------------------------------
// Compression.

ByteVec gzip_bytes(const ByteVec& data) {
  z_stream zs{};
  if (deflateInit2(&zs, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY) != Z_OK)
    throw std::runtime_error("deflateInit2 failed");
  ByteVec out(deflateBound(&zs, data.size()) + 64);
  zs.next_in = const_cast<Bytef*>(data.data());
  zs.avail_in = static_cast<uInt>(data.size());
  zs.next_out = out.data();
  zs.avail_out = static_cast<uInt>(out.size());
  int rc = deflate(&zs, Z_FINISH);
  size_t produced = zs.total_out;
  deflateEnd(&zs);
  if (rc != Z_STREAM_END) throw std::runtime_error("deflate failed");
  out.resize(produced);
  return out;
}

ByteVec gunzip_bytes(const ByteVec& data) {
  z_stream zs{};
  if (inflateInit2(&zs, 31) != Z_OK) return {};
  ByteVec out;
  uint8_t buffer[16384];
  zs.next_in = const_cast<Bytef*>(data.data());
  zs.avail_in = static_cast<uInt>(data.size());
  int rc;
  do {
    zs.next_out = buffer;
    zs.avail_out = sizeof buffer;
    rc = inflate(&zs, Z_NO_FLUSH);
    if (rc != Z_OK && rc != Z_STREAM_END) {
      inflateEnd(&zs);
      return {};
    }
    out.insert(out.end(), buffer, buffer + (sizeof buffer - zs.avail_out));
  } while (rc != Z_STREAM_END);
  inflateEnd(&zs);
  return out;
}

ByteVec snappy_bytes(const ByteVec& data) {
  size_t size = snappy_max_compressed_length(data.size());
  ByteVec out(size);
  if (snappy_compress(reinterpret_cast<const char*>(data.data()), data.size(),
                      reinterpret_cast<char*>(out.data()), &size) != SNAPPY_OK)
    throw std::runtime_error("snappy_compress failed");
  out.resize(size);
  return out;
}

ByteVec unsnappy_bytes(const ByteVec& data) {
  size_t size = 0;
  const char* in = reinterpret_cast<const char*>(data.data());
  if (snappy_uncompressed_length(in, data.size(), &size) != SNAPPY_OK) return {};
  ByteVec out(size);
  if (snappy_uncompress(in, data.size(), reinterpret_cast<char*>(out.data()), &size) != SNAPPY_OK)
    return {};
  out.resize(size);
  return out;
}

// ---------------------------------------------------------------------------
// Packed pages.

PackedPage& PackedPage::content(ByteVec bytes) {
  content_ = std::move(bytes);
  return *this;
}
PackedPage& PackedPage::source(std::string id, std::string tag) {
  source_id_ = std::move(id);
  source_tag_ = std::move(tag);
  return *this;
}
PackedPage& PackedPage::times(uint64_t first, uint64_t last) {
  first_ = first;
  last_ = last;
  return *this;
}
PackedPage& PackedPage::encoding(uint8_t code) {
  encoding_ = code;
  return *this;
}
PackedPage& PackedPage::header_size(uint8_t size) {
  header_size_ = size;
  return *this;
}
PackedPage& PackedPage::stream_size(uint32_t size) {
  stream_size_ = size;
  return *this;
}
PackedPage& PackedPage::stream(ByteVec raw) {
  stream_ = std::move(raw);
  return *this;
}
PackedPage& PackedPage::trailer(std::string_view four) {
  trailer_ = std::string(four);
  return *this;
}
PackedPage& PackedPage::magic(std::string_view four) {
  magic_ = std::string(four);
  return *this;
}
PackedPage& PackedPage::truncate(size_t size) {
  truncate_ = size;
  return *this;
}
PackedPage& PackedPage::gzip_size_field(uint32_t size) {
  gzip_size_field_ = size;
  return *this;
}

ByteVec PackedPage::encoded_stream() const {
  if (stream_) return *stream_;
  ByteVec s;
  if (encoding_ == 'G')
    s = gzip_bytes(content_);
  else if (encoding_ == 'S')
    s = snappy_bytes(content_);
  else
    s = content_;
  if (gzip_size_field_ && s.size() >= 4) poke_le(s, s.size() - 4, *gzip_size_field_, 4);
  return s;
}

ByteVec PackedPage::header() const {
  size_t n = std::min<size_t>(source_id_.size(), 64);
  size_t m = std::min<size_t>(source_tag_.size(), 16);
  ByteVec stream = encoded_stream();
  Bytes h;
  h.u8(header_size_.value_or(static_cast<uint8_t>(24 + n + m)))
      .u8(encoding_)
      .u32(stream_size_.value_or(static_cast<uint32_t>(stream.size())))
      .u64(first_)
      .u64(last_)
      .u8(static_cast<uint8_t>(n))
      .text(std::string_view(source_id_).substr(0, n))
      .u8(static_cast<uint8_t>(m))
      .text(std::string_view(source_tag_).substr(0, m));
  return std::move(h).vec();
}

ByteVec PackedPage::bytes() const {
  ByteVec out = Bytes().fixed(magic_, 4).raw(header()).raw(encoded_stream()).fixed(trailer_, 4);
  if (truncate_ && *truncate_ < out.size()) out.resize(*truncate_);
  return out;
}

}  // namespace nmb::test
