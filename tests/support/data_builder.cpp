#include "tests/support/data_builder.h"

#include <openssl/evp.h>
#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace nmb::test {

// ---------------------------------------------------------------------------
// Packers.

void put_le(ByteVec& out, uint64_t v, size_t size) {
  for (size_t i = 0; i < size; ++i) out.push_back(static_cast<uint8_t>(i < 8 ? v >> (8 * i) : 0));
}

void poke_le(ByteVec& out, size_t offset, uint64_t v, size_t size) {
  if (out.size() < offset + size) out.resize(offset + size);
  for (size_t i = 0; i < size; ++i)
    out[offset + i] = static_cast<uint8_t>(i < 8 ? v >> (8 * i) : 0);
}

uint64_t load_le(const ByteVec& in, size_t offset, size_t size) {
  uint64_t v = 0;
  for (size_t i = 0; i < size && i < 8 && offset + i < in.size(); ++i)
    v |= uint64_t{in[offset + i]} << (8 * i);
  return v;
}

Bytes& Bytes::u8(uint8_t v) {
  data_.push_back(v);
  return *this;
}
Bytes& Bytes::u16(uint16_t v) {
  put_le(data_, v, 2);
  return *this;
}
Bytes& Bytes::u32(uint32_t v) {
  put_le(data_, v, 4);
  return *this;
}
Bytes& Bytes::u64(uint64_t v) {
  put_le(data_, v, 8);
  return *this;
}
Bytes& Bytes::f32(float v) {
  uint32_t bits;
  std::memcpy(&bits, &v, 4);
  return u32(bits);
}
Bytes& Bytes::f64(double v) {
  uint64_t bits;
  std::memcpy(&bits, &v, 8);
  return u64(bits);
}
Bytes& Bytes::u128(unsigned __int128 v) {
  return u64(static_cast<uint64_t>(v)).u64(static_cast<uint64_t>(v >> 64));
}
Bytes& Bytes::fixed(std::string_view text, size_t size) {
  for (size_t i = 0; i < size; ++i) data_.push_back(i < text.size() ? text[i] : 0);
  return *this;
}
Bytes& Bytes::text(std::string_view text) {
  data_.insert(data_.end(), text.begin(), text.end());
  return *this;
}
Bytes& Bytes::raw(const ByteVec& bytes) {
  data_.insert(data_.end(), bytes.begin(), bytes.end());
  return *this;
}
Bytes& Bytes::raw(const uint8_t* bytes, size_t size) {
  data_.insert(data_.end(), bytes, bytes + size);
  return *this;
}
Bytes& Bytes::zeros(size_t count) {
  data_.insert(data_.end(), count, 0);
  return *this;
}

// ---------------------------------------------------------------------------
// Schema ids.

SchemaId schema_id_from_hex(std::string_view hex) {
  if (hex.size() != 32) throw std::invalid_argument("schema id must have 32 hex digits");
  auto digit = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    throw std::invalid_argument("bad hex digit in schema id");
  };
  SchemaId id{};
  for (size_t i = 0; i < 16; ++i)
    id[i] = static_cast<uint8_t>(digit(hex[2 * i]) * 16 + digit(hex[2 * i + 1]));
  return id;
}

std::string schema_id_hex(const SchemaId& id) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  for (uint8_t b : id) {
    text.push_back(kDigits[b >> 4]);
    text.push_back(kDigits[b & 15]);
  }
  return text;
}

SchemaId schema_id_of(std::string_view text) {
  SchemaId id{};
  unsigned int size = 0;
  if (!EVP_Digest(text.data(), text.size(), id.data(), &size, EVP_md5(), nullptr) || size != 16)
    throw std::runtime_error("MD5 failed");
  return id;
}

SchemaId schema_id_filled(uint8_t byte) {
  SchemaId id;
  id.fill(byte);
  return id;
}

// ---------------------------------------------------------------------------
// Blocks.

ByteVec counters_block(uint64_t timestamp, const ByteVec& values) {
  return Bytes().text("NMBD").u32(0).u64(timestamp).raw(values);
}

ByteVec event_block(uint64_t timestamp, uint8_t schema_index, uint16_t type_index,
                    uint8_t num_events, const ByteVec& records) {
  return Bytes()
      .text("NMBE")
      .u64(timestamp)
      .u8(schema_index)
      .u16(type_index)
      .u8(num_events)
      .raw(records);
}

ByteVec schemas_block(const std::vector<SchemaId>& ids, std::optional<uint16_t> length,
                      std::optional<uint16_t> count) {
  Bytes b;
  b.text("NMBS")
      .u16(length.value_or(static_cast<uint16_t>(16 + 16 * ids.size())))
      .u16(count.value_or(static_cast<uint16_t>(ids.size())))
      .zeros(8);
  for (const auto& id : ids) b.id(id);
  return std::move(b).vec();
}

ByteVec blob_block(uint64_t timestamp, const ByteVec& data, std::optional<uint64_t> data_size) {
  return Bytes().text("NMBB").u64(timestamp).u64(data_size.value_or(data.size())).raw(data);
}

// ---------------------------------------------------------------------------
// Chunks.

Chunk& Chunk::counters(uint64_t timestamp, const ByteVec& values) {
  return raw(counters_block(timestamp, values));
}
Chunk& Chunk::events(uint64_t timestamp, uint8_t schema_index, uint16_t type_index,
                     uint8_t num_events, const ByteVec& records) {
  return raw(event_block(timestamp, schema_index, type_index, num_events, records));
}
Chunk& Chunk::schemas(const std::vector<SchemaId>& ids, std::optional<uint16_t> length,
                      std::optional<uint16_t> count) {
  return raw(schemas_block(ids, length, count));
}
Chunk& Chunk::blob(uint64_t timestamp, const ByteVec& data, std::optional<uint64_t> data_size) {
  return raw(blob_block(timestamp, data, data_size));
}
Chunk& Chunk::page(const PackedPage& page) {
  return raw(page.bytes());
}
Chunk& Chunk::raw(const ByteVec& bytes) {
  content_.insert(content_.end(), bytes.begin(), bytes.end());
  return *this;
}
Chunk& Chunk::unpadded() {
  unpadded_ = true;
  return *this;
}
Chunk& Chunk::size(size_t size) {
  size_ = size;
  return *this;
}

ByteVec Chunk::bytes(size_t block_size) const {
  ByteVec out = content_;
  if (size_)
    out.resize(*size_);
  else if (!unpadded_ && out.size() < block_size)
    out.resize(block_size);
  return out;
}

// ---------------------------------------------------------------------------
// File header.

ByteVec FileHeader::bytes(uint64_t total_size) const {
  Bytes b;
  b.fixed(magic, 4)
      .u8(major)
      .u8(minor)
      .u16(patch)
      .u64(file_size.value_or(total_size))
      .fixed(source_id, 64)
      .fixed(source_tag, 16)
      .u64(first_timestamp)
      .u64(last_timestamp)
      .u32(block_size)
      .id(counters_schema_id);
  for (const auto& id : event_schema_ids) b.id(id);
  b.u8(byte_order).zeros(7).fixed(magic_end, 4);
  return std::move(b).vec();
}

// ---------------------------------------------------------------------------
// Data files.

DataFile& DataFile::magic(std::string_view four) {
  header_.magic = std::string(four);
  return *this;
}
DataFile& DataFile::version(uint8_t major, uint8_t minor, uint16_t patch) {
  header_.major = major;
  header_.minor = minor;
  header_.patch = patch;
  return *this;
}
DataFile& DataFile::file_size(uint64_t size) {
  header_.file_size = size;
  return *this;
}
DataFile& DataFile::source(std::string id, std::string tag) {
  header_.source_id = std::move(id);
  header_.source_tag = std::move(tag);
  return *this;
}
DataFile& DataFile::times(uint64_t first, uint64_t last) {
  header_.first_timestamp = first;
  header_.last_timestamp = last;
  return *this;
}
DataFile& DataFile::block_size(uint32_t size) {
  header_.block_size = size;
  return *this;
}
DataFile& DataFile::counters_schema(const SchemaId& id) {
  header_.counters_schema_id = id;
  return *this;
}
DataFile& DataFile::event_schema(size_t slot, const SchemaId& id) {
  header_.event_schema_ids.at(slot) = id;
  return *this;
}
DataFile& DataFile::byte_order(uint8_t order) {
  header_.byte_order = order;
  return *this;
}
DataFile& DataFile::magic_end(std::string_view four) {
  header_.magic_end = std::string(four);
  return *this;
}
DataFile& DataFile::chunk(const Chunk& chunk) {
  ByteVec bytes = chunk.bytes(header_.block_size);
  body_.insert(body_.end(), bytes.begin(), bytes.end());
  return *this;
}
DataFile& DataFile::raw(const ByteVec& bytes) {
  body_.insert(body_.end(), bytes.begin(), bytes.end());
  return *this;
}
DataFile& DataFile::gzipped(bool on) {
  gzipped_ = on;
  return *this;
}
DataFile& DataFile::truncate(size_t size) {
  truncate_ = size;
  return *this;
}

ByteVec DataFile::plain_bytes() const {
  ByteVec out = header_.bytes(256 + body_.size());
  out.insert(out.end(), body_.begin(), body_.end());
  if (truncate_ && *truncate_ < out.size()) out.resize(*truncate_);
  return out;
}

ByteVec DataFile::bytes() const {
  ByteVec plain = plain_bytes();
  return gzipped_ ? gzip_bytes(plain) : plain;
}

std::string DataFile::write(const std::string& path) const {
  write_file(path, bytes());
  return path;
}

// ---------------------------------------------------------------------------
// Files and folders.

TempDir::TempDir(std::string_view prefix) {
  const char* base = getenv("TMPDIR");
  std::string pattern =
      std::string(base && *base ? base : "/tmp") + "/" + std::string(prefix) + ".XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (!mkdtemp(buffer.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
  path_ = buffer.data();
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::string TempDir::file(std::string_view name) const {
  return path_ + "/" + std::string(name);
}

void write_file(const std::string& path, const ByteVec& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

void write_text_file(const std::string& path, std::string_view text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

ByteVec read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return ByteVec((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

}  // namespace nmb::test
