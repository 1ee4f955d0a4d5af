// Test-data builder: composes data files, packed pages and schema files from a
// readable description, so that a test spells out a malformed case in a few
// lines instead of committing binary blobs.
//
//   DataFile()
//       .block_size(4096)
//       .source("node1", "tag")
//       .times(1000, 2000)
//       .counters_schema(counters_id)
//       .event_schema(0, events_id)
//       .chunk(Chunk().counters(1000, Bytes().u64(1).u64(2)))
//       .chunk(Chunk().events(1500, 0, 0, 2, records))
//       .write(dir.file("data.bin"));
//
// Every field of the file header can be set to a wrong value. Chunks are padded
// with zeros to the block size unless told otherwise (short last chunk).
//
// One header, three sources: data_builder.cpp (packers, ids, blocks, chunks,
// headers, files), page_builder.cpp (compression, packed pages) and
// schema_builder.cpp (schema files).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nmb::test {

using ByteVec = std::vector<uint8_t>;
using SchemaId = std::array<uint8_t, 16>;

// ---------------------------------------------------------------------------
// Little-endian value packers.

class Bytes {
 public:
  Bytes() = default;
  Bytes(ByteVec bytes) : data_(std::move(bytes)) {}

  Bytes& u8(uint8_t v);
  Bytes& u16(uint16_t v);
  Bytes& u32(uint32_t v);
  Bytes& u64(uint64_t v);
  Bytes& i8(int8_t v) { return u8(static_cast<uint8_t>(v)); }
  Bytes& i16(int16_t v) { return u16(static_cast<uint16_t>(v)); }
  Bytes& i32(int32_t v) { return u32(static_cast<uint32_t>(v)); }
  Bytes& i64(int64_t v) { return u64(static_cast<uint64_t>(v)); }
  Bytes& f32(float v);
  Bytes& f64(double v);
  Bytes& u128(unsigned __int128 v);
  Bytes& i128(__int128 v) { return u128(static_cast<unsigned __int128>(v)); }
  // Low and high 64-bit halves, stored low half first.
  Bytes& u128(uint64_t low, uint64_t high) { return u64(low).u64(high); }
  // `text` cut or NUL-padded to exactly `size` bytes.
  Bytes& fixed(std::string_view text, size_t size);
  // The characters of `text`, no terminator.
  Bytes& text(std::string_view text);
  Bytes& raw(const ByteVec& bytes);
  Bytes& raw(const uint8_t* bytes, size_t size);
  Bytes& zeros(size_t count);
  Bytes& id(const SchemaId& id) { return raw(id.data(), id.size()); }

  const ByteVec& vec() const& { return data_; }
  ByteVec vec() && { return std::move(data_); }
  operator const ByteVec&() const& { return data_; }
  operator ByteVec() && { return std::move(data_); }
  size_t size() const { return data_.size(); }

 private:
  ByteVec data_;
};

// Appends `v` in little-endian order (unaligned); `size` bytes of it.
void put_le(ByteVec& out, uint64_t v, size_t size);
// Overwrites `size` little-endian bytes at `offset` (the vector grows if needed).
void poke_le(ByteVec& out, size_t offset, uint64_t v, size_t size);
uint64_t load_le(const ByteVec& in, size_t offset, size_t size);

// ---------------------------------------------------------------------------
// Schema ids.

// Parses 32 hexadecimal digits; throws std::invalid_argument otherwise.
SchemaId schema_id_from_hex(std::string_view hex);
// 32 lower-case hexadecimal digits.
std::string schema_id_hex(const SchemaId& id);
// MD5 of `text`, the way event schema ids are derived.
SchemaId schema_id_of(std::string_view text);
// An id whose 16 bytes are all `byte` (handy for "some id").
SchemaId schema_id_filled(uint8_t byte);

// ---------------------------------------------------------------------------
// Blocks.

// "NMBD", 4 zero bytes, timestamp, values.
ByteVec counters_block(uint64_t timestamp, const ByteVec& values);
// "NMBE", timestamp, schema index, type index, event count, records.
ByteVec event_block(uint64_t timestamp, uint8_t schema_index, uint16_t type_index,
                    uint8_t num_events, const ByteVec& records);
// "NMBS", length, count, 8 unread bytes, ids. The length defaults to 16 + 16 per id
// and the count to the number of ids; both can be set to anything.
ByteVec schemas_block(const std::vector<SchemaId>& ids, std::optional<uint16_t> length = {},
                      std::optional<uint16_t> count = {});
// "NMBB", timestamp, data size (defaults to the data's size), data.
ByteVec blob_block(uint64_t timestamp, const ByteVec& data, std::optional<uint64_t> data_size = {});

// ---------------------------------------------------------------------------
// Compression.

ByteVec gzip_bytes(const ByteVec& data);  // RFC 1952 stream (deflate window bits 31)
ByteVec snappy_bytes(const ByteVec& data);
// Inverse operations for checks in tests; empty on failure.
ByteVec gunzip_bytes(const ByteVec& data);
ByteVec unsnappy_bytes(const ByteVec& data);

// ---------------------------------------------------------------------------
// Packed pages: "NMBP", encoded-payload header, stream, "nmbp".

class PackedPage {
 public:
  // 'G' gzip, 'S' snappy; any other code is stored as given and the stream is
  // the content uncompressed.
  explicit PackedPage(char encoding = 'G') : encoding_(static_cast<uint8_t>(encoding)) {}

  // The decoded page: a sequence of blocks (e.g. Chunk(...).bytes(n)).
  PackedPage& content(ByteVec bytes);
  PackedPage& source(std::string id, std::string tag);
  PackedPage& times(uint64_t first, uint64_t last);
  PackedPage& encoding(uint8_t code);

  // Corruptions.
  PackedPage& header_size(uint8_t size);       // the first header byte
  PackedPage& stream_size(uint32_t size);      // the stored stream size
  PackedPage& stream(ByteVec raw);             // replaces the encoded stream
  PackedPage& trailer(std::string_view four);  // instead of "nmbp"
  PackedPage& magic(std::string_view four);    // instead of "NMBP"
  PackedPage& truncate(size_t size);           // cut the whole packed page
  PackedPage& gzip_size_field(uint32_t size);  // rewrite the gzip trailer's size

  ByteVec encoded_stream() const;
  // Header built as the writer does: size byte 24 + n + m, encoding, stream
  // size, timestamps, length-prefixed id (at most 64) and tag (at most 16).
  ByteVec header() const;
  ByteVec bytes() const;

 private:
  uint8_t encoding_;
  ByteVec content_;
  std::string source_id_ = "node1";
  std::string source_tag_ = "tag";
  uint64_t first_ = 0;
  uint64_t last_ = 0;
  std::optional<uint8_t> header_size_;
  std::optional<uint32_t> stream_size_;
  std::optional<ByteVec> stream_;
  std::optional<uint32_t> gzip_size_field_;
  std::string trailer_ = "nmbp";
  std::string magic_ = "NMBP";
  std::optional<size_t> truncate_;
};

// ---------------------------------------------------------------------------
// Chunks: a sequence of blocks, padded with zeros to the file's block size.

class Chunk {
 public:
  Chunk& counters(uint64_t timestamp, const ByteVec& values);
  Chunk& events(uint64_t timestamp, uint8_t schema_index, uint16_t type_index, uint8_t num_events,
                const ByteVec& records);
  Chunk& schemas(const std::vector<SchemaId>& ids, std::optional<uint16_t> length = {},
                 std::optional<uint16_t> count = {});
  Chunk& blob(uint64_t timestamp, const ByteVec& data, std::optional<uint64_t> data_size = {});
  Chunk& page(const PackedPage& page);
  Chunk& raw(const ByteVec& bytes);

  // Not padded: the chunk keeps its natural length (a short last chunk).
  Chunk& unpadded();
  // Padded (or cut) to exactly `size` bytes instead of the block size.
  Chunk& size(size_t size);

  // The chunk's bytes for a file of the given block size.
  ByteVec bytes(size_t block_size) const;
  const ByteVec& content() const { return content_; }

 private:
  ByteVec content_;
  bool unpadded_ = false;
  std::optional<size_t> size_;
};

// ---------------------------------------------------------------------------
// File header (256 bytes), every field settable.

struct FileHeader {
  std::string magic = "NMBF";
  uint8_t major = 1;
  uint8_t minor = 7;
  uint16_t patch = 0;
  std::optional<uint64_t> file_size;  // default: the length of the whole (uncompressed) file
  std::string source_id = "node1";
  std::string source_tag = "tag";
  uint64_t first_timestamp = 1700000000000000;
  uint64_t last_timestamp = 1700000060000000;
  uint32_t block_size = 4096;
  SchemaId counters_schema_id{};
  std::array<SchemaId, 7> event_schema_ids{};
  uint8_t byte_order = 0;
  std::string magic_end = "nmbf";

  ByteVec bytes(uint64_t total_size = 256) const;
};

inline constexpr size_t kHeaderOffsetVersion = 4;
inline constexpr size_t kHeaderOffsetFileSize = 8;
inline constexpr size_t kHeaderOffsetSourceId = 16;
inline constexpr size_t kHeaderOffsetSourceTag = 80;
inline constexpr size_t kHeaderOffsetFirstTimestamp = 96;
inline constexpr size_t kHeaderOffsetLastTimestamp = 104;
inline constexpr size_t kHeaderOffsetBlockSize = 112;
inline constexpr size_t kHeaderOffsetCountersSchemaId = 116;
inline constexpr size_t kHeaderOffsetEventSchemaIds = 132;
inline constexpr size_t kHeaderOffsetByteOrder = 244;
inline constexpr size_t kHeaderOffsetMagicEnd = 252;

// ---------------------------------------------------------------------------
// A whole data file.

class DataFile {
 public:
  DataFile& magic(std::string_view four);
  DataFile& version(uint8_t major, uint8_t minor, uint16_t patch = 0);
  DataFile& file_size(uint64_t size);
  DataFile& source(std::string id, std::string tag);
  DataFile& times(uint64_t first, uint64_t last);
  DataFile& block_size(uint32_t size);
  DataFile& counters_schema(const SchemaId& id);
  DataFile& event_schema(size_t slot, const SchemaId& id);
  DataFile& byte_order(uint8_t order);
  DataFile& magic_end(std::string_view four);
  FileHeader& header() { return header_; }

  DataFile& chunk(const Chunk& chunk);
  // Bytes appended as they are (after the chunks so far).
  DataFile& raw(const ByteVec& bytes);
  // Stored gzip-compressed as a whole.
  DataFile& gzipped(bool on = true);
  // Only the first `size` bytes of the file (before compression) are kept.
  DataFile& truncate(size_t size);

  // The plain bytes (never compressed).
  ByteVec plain_bytes() const;
  // The bytes as written to disk (compressed when gzipped).
  ByteVec bytes() const;
  // Writes bytes() to `path`; returns the path. Throws on failure.
  std::string write(const std::string& path) const;

 private:
  FileHeader header_;
  ByteVec body_;
  bool gzipped_ = false;
  std::optional<size_t> truncate_;
};

// ---------------------------------------------------------------------------
// Schema files.

struct EventField {
  std::string name;
  std::string type_name = "uint64_t";
  uint64_t type_size = 8;
  uint64_t offset = 0;
  std::string counting_mode = "ABSOLUTE";
  std::string description;
  std::optional<uint16_t> index;         // absent: key left out
  std::optional<uint16_t> array_length;  // absent: key left out
};

struct EventType {
  std::string name;
  uint64_t size = 0;
  std::vector<EventField> fields;

  EventType() = default;
  explicit EventType(std::string type_name) : name(std::move(type_name)) {}
  // Appends a field at the current end of the record and grows `size`.
  EventType& field(std::string field_name, std::string type_name, uint64_t type_size,
                   uint16_t array_length = 1, std::string counting_mode = "ABSOLUTE");
  // Appends a field exactly as described (size is not changed).
  EventType& add(EventField field);
  EventType& record_size(uint64_t record_size);
  // Makes the last field added a key field ("index": its position in the key).
  EventType& index(uint16_t position);
};

// A type "all" with one field of each of the 22 built-in types, in table order,
// named b, c, s, i, l, ll, uc, us, ui, ul, ull, f, d, i8, i16, i32, i64, u8,
// u16, u32, u64, ts.
EventType every_builtin_type();

struct EventSchema {
  std::string nmb_version = "1.5.0";
  std::string provider_name = "test_provider";
  std::string provider_version = "1.0.0";
  std::vector<EventType> types;

  EventSchema& type(EventType type);
  // The schema document, pretty-printed with 4 blanks.
  std::string json() const;
};

struct Counter {
  std::string name;
  std::string data_type = "UINT64";
  std::string counting_type = "ABSOLUTE";
  std::string description;
  std::string units;
  std::optional<std::string> string_format;
  std::optional<uint32_t> length;
  std::optional<uint32_t> hidden;
  std::optional<uint32_t> mandatory;
  std::optional<uint16_t> index;
};

// A counter of `data_type`; the string format and length are set only when
// given (non-empty, non-zero), so the keys are otherwise left out.
Counter make_counter(std::string name, std::string data_type, std::string string_format = "",
                     uint32_t length = 0);

struct CounterGroup {
  std::string granularity = "NODE";
  std::optional<std::string> name;
  std::optional<std::string> provider;
  uint32_t num_counter_sets = 1;
  std::vector<Counter> counters;

  CounterGroup() = default;
  explicit CounterGroup(std::string group_name) : name(std::move(group_name)) {}
  // Appends a counter of the given data type (length set when non-zero).
  CounterGroup& counter(std::string counter_name, std::string data_type = "UINT64",
                        uint32_t length = 0);
  CounterGroup& add(Counter counter);
};

struct CountersSchema {
  std::string version = "1.5.0";
  std::vector<CounterGroup> groups;

  CountersSchema& group(CounterGroup group);
  std::string json() const;
};

// Writes `text` to "<dir>/schema_<hex id>.json" (dir created when missing).
// Without an id, the MD5 of the text is used. Returns the id.
SchemaId write_schema_file(const std::string& dir, const std::string& text,
                           std::optional<SchemaId> id = {});
SchemaId write_schema_file(const std::string& dir, const EventSchema& schema,
                           std::optional<SchemaId> id = {});
SchemaId write_schema_file(const std::string& dir, const CountersSchema& schema,
                           std::optional<SchemaId> id = {});
std::string schema_file_path(const std::string& dir, const SchemaId& id);

// ---------------------------------------------------------------------------
// Files and folders.

// A fresh directory under $TMPDIR (or /tmp), removed with its contents on destruction.
class TempDir {
 public:
  explicit TempDir(std::string_view prefix = "nmb_test");
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // "<path>/<name>".
  std::string file(std::string_view name) const;

 private:
  std::string path_;
};

// Throw std::runtime_error on failure.
void write_file(const std::string& path, const ByteVec& bytes);
void write_text_file(const std::string& path, std::string_view text);
ByteVec read_file(const std::string& path);

}  // namespace nmb::test
