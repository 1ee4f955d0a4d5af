#include "tests/support/data_builder.h"

#include <openssl/evp.h>
#include <snappy-c.h>
#include <stdlib.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
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
// Schema files.

Counter make_counter(std::string name, std::string data_type, std::string string_format,
                     uint32_t length) {
  Counter c;
  c.name = std::move(name);
  c.data_type = std::move(data_type);
  if (!string_format.empty()) c.string_format = std::move(string_format);
  if (length) c.length = length;
  return c;
}

EventType every_builtin_type() {
  EventType t("all");
  t.field("b", "bool", 1)
      .field("c", "char", 1)
      .field("s", "short", 2)
      .field("i", "int", 4)
      .field("l", "long", 8)
      .field("ll", "long long", 8)
      .field("uc", "unsigned char", 1)
      .field("us", "unsigned short", 2)
      .field("ui", "unsigned int", 4)
      .field("ul", "unsigned long", 8)
      .field("ull", "unsigned long long", 8)
      .field("f", "float", 4)
      .field("d", "double", 8)
      .field("i8", "int8_t", 1)
      .field("i16", "int16_t", 2)
      .field("i32", "int32_t", 4)
      .field("i64", "int64_t", 8)
      .field("u8", "uint8_t", 1)
      .field("u16", "uint16_t", 2)
      .field("u32", "uint32_t", 4)
      .field("u64", "uint64_t", 8)
      .field("ts", "timestamp", 8);
  return t;
}

EventType& EventType::field(std::string field_name, std::string type_name, uint64_t type_size,
                            uint16_t array_length, std::string counting_mode) {
  EventField f;
  f.name = std::move(field_name);
  f.type_name = std::move(type_name);
  f.type_size = type_size;
  f.offset = size;
  f.counting_mode = std::move(counting_mode);
  if (array_length != 1) f.array_length = array_length;
  size += type_size * (array_length == 0 ? 1 : array_length);
  fields.push_back(std::move(f));
  return *this;
}

EventType& EventType::add(EventField field) {
  fields.push_back(std::move(field));
  return *this;
}

EventType& EventType::record_size(uint64_t record_size) {
  size = record_size;
  return *this;
}

EventType& EventType::index(uint16_t position) {
  fields.back().index = position;
  return *this;
}

EventSchema& EventSchema::type(EventType type) {
  types.push_back(std::move(type));
  return *this;
}

std::string EventSchema::json() const {
  using nlohmann::ordered_json;
  ordered_json doc;
  doc["title"] = "Nimbrel schema";
  doc["nmb_version"] = nmb_version;
  doc["provider_name"] = provider_name;
  doc["provider_version"] = provider_version;
  ordered_json types_json = ordered_json::array();
  for (size_t t = 0; t < types.size(); ++t) {
    const EventType& type = types[t];
    ordered_json fields = ordered_json::array();
    for (const EventField& f : type.fields) {
      ordered_json fj;
      fj["field_name"] = f.name;
      fj["description"] = f.description;
      fj["type_name"] = f.type_name;
      fj["counting_mode"] = f.counting_mode;
      if (f.array_length) fj["array_length"] = *f.array_length;
      fj["offset"] = f.offset;
      fj["type_size"] = f.type_size;
      if (f.index) fj["index"] = *f.index;
      fields.push_back(std::move(fj));
    }
    ordered_json tj;
    tj["name"] = type.name;
    tj["size"] = type.size;
    tj["fields"] = std::move(fields);
    tj["type_index"] = t;
    types_json.push_back(std::move(tj));
  }
  doc["types"] = std::move(types_json);
  return doc.dump(4);
}

CounterGroup& CounterGroup::counter(std::string counter_name, std::string data_type,
                                    uint32_t length) {
  Counter c;
  c.name = std::move(counter_name);
  c.data_type = std::move(data_type);
  if (length) c.length = length;
  counters.push_back(std::move(c));
  return *this;
}

CounterGroup& CounterGroup::add(Counter counter) {
  counters.push_back(std::move(counter));
  return *this;
}

CountersSchema& CountersSchema::group(CounterGroup group) {
  groups.push_back(std::move(group));
  return *this;
}

std::string CountersSchema::json() const {
  using nlohmann::ordered_json;
  ordered_json doc;
  doc["title"] = "Nimbrel performance counters collector";
  doc["version"] = version;
  ordered_json groups_json = ordered_json::array();
  for (const CounterGroup& g : groups) {
    ordered_json gj;
    gj["granularity"] = g.granularity;
    if (g.name) gj["name"] = *g.name;
    if (g.provider) gj["provider"] = *g.provider;
    gj["num_counter_sets"] = g.num_counter_sets;
    gj["num_counters"] = g.counters.size();
    ordered_json counters = ordered_json::array();
    for (const Counter& c : g.counters) {
      ordered_json cj;
      cj["name"] = c.name;
      cj["description"] = c.description;
      cj["units"] = c.units;
      cj["data_type"] = c.data_type;
      if (c.length) cj["length"] = *c.length;
      if (c.hidden) cj["hidden"] = *c.hidden;
      if (c.mandatory) cj["mandatory"] = *c.mandatory;
      cj["counting_type"] = c.counting_type;
      if (c.string_format) cj["string_format"] = *c.string_format;
      if (c.index) cj["index"] = *c.index;
      counters.push_back(std::move(cj));
    }
    gj["counters"] = std::move(counters);
    groups_json.push_back(std::move(gj));
  }
  doc["counter_groups"] = std::move(groups_json);
  return doc.dump(4);
}

std::string schema_file_path(const std::string& dir, const SchemaId& id) {
  return dir + "/schema_" + schema_id_hex(id) + ".json";
}

SchemaId write_schema_file(const std::string& dir, const std::string& text,
                           std::optional<SchemaId> id) {
  SchemaId sid = id.value_or(schema_id_of(text));
  std::filesystem::create_directories(dir);
  write_text_file(schema_file_path(dir, sid), text);
  return sid;
}

SchemaId write_schema_file(const std::string& dir, const EventSchema& schema,
                           std::optional<SchemaId> id) {
  return write_schema_file(dir, schema.json(), id);
}

SchemaId write_schema_file(const std::string& dir, const CountersSchema& schema,
                           std::optional<SchemaId> id) {
  return write_schema_file(dir, schema.json(), id);
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
