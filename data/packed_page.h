// Packed pages: a data page stored compressed inside a page block as
// "NMBP", an encoded-payload header, the encoded stream and "nmbp".
//
// Encoded-payload header (little-endian, unaligned):
//   0  header size (24 + source id length + source tag length)
//   1  encoding ('G' gzip, 'S' snappy)
//   2  stream size (u32)
//   6  first timestamp (u64)
//   14 last timestamp (u64)
//   22 source id as a length-prefixed string (at most 64 bytes)
//   .. source tag as a length-prefixed string (at most 16 bytes)
// Stage: model.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "data/bytes.h"

inline constexpr uint8_t NMB_ENCODING_GZIP = 'G';
inline constexpr uint8_t NMB_ENCODING_SNAPPY = 'S';

inline constexpr size_t NMB_NMBP_MAGIC_SIZE = 4;    // "NMBP"
inline constexpr size_t NMB_NMBP_TRAILER_SIZE = 4;  // "nmbp"
inline constexpr size_t NMB_NMBP_HEADER_SIZE_OFFSET = 0;
inline constexpr size_t NMB_NMBP_ENCODING_OFFSET = 1;
inline constexpr size_t NMB_NMBP_STREAM_SIZE_OFFSET = 2;
inline constexpr size_t NMB_NMBP_FIRST_TIMESTAMP_OFFSET = 6;
inline constexpr size_t NMB_NMBP_LAST_TIMESTAMP_OFFSET = 14;
inline constexpr size_t NMB_NMBP_FIXED_SIZE = 22;  // everything before the source id
inline constexpr size_t NMB_NMBP_HEADER_BASE_SIZE = 24;
inline constexpr size_t NMB_NMBP_MAX_SOURCE_ID = 64;
inline constexpr size_t NMB_NMBP_MAX_SOURCE_TAG = 16;

// The largest decoded page the reader accepts. The size comes from four
// untrusted bytes (gzip trailer or snappy preamble); a larger claim is
// treated as corrupt data instead of allocating up to 4 GiB.
inline constexpr uint64_t NMB_MAX_DECODED_PAGE_SIZE = uint64_t{1} << 30;

// The identity a written page carries: fixed, NUL-padded text fields (not
// necessarily terminated) and its time span.
struct nmb_page_identity_t {
  char source_id[NMB_NMBP_MAX_SOURCE_ID] = {};
  char source_tag[NMB_NMBP_MAX_SOURCE_TAG] = {};
  uint64_t first_timestamp = 0;
  uint64_t last_timestamp = 0;
};

// Decoded size of an encoded stream; 0 when unknown or on error (logged with
// "[encoded_data]").
uint64_t nmb_encoded_stream_decoded_size(uint8_t encoding, const uint8_t* stream,
                                         size_t stream_size);
// Decodes a whole stream into exactly `out_size` bytes.
bool nmb_decode_stream(uint8_t encoding, const uint8_t* stream, size_t stream_size, uint8_t* out,
                       size_t out_size);

// The payload functions take the encoded-payload header followed by its
// stream: `payload` must hold header size + stream size bytes, otherwise the
// payload is refused (size 0, decoding fails).
uint64_t nmb_encoded_payload_decoded_size(std::span<const uint8_t> payload);
// The buffer size must equal the decoded size.
bool nmb_decode_payload_into_buffer(std::span<const uint8_t> payload, uint8_t* buffer,
                                    size_t buffer_size);
// Decodes into `out` (resized to the decoded size plus `slack` zero bytes);
// the decoded size is stored through `size_out`. Sizes above
// NMB_MAX_DECODED_PAGE_SIZE are refused as an allocation failure.
bool nmb_decode_payload_into_new_buffer(std::span<const uint8_t> payload, std::vector<uint8_t>& out,
                                        uint64_t* size_out, size_t slack = 0);

// Writes the text's length n (counting at most min(maximum, 255) characters)
// as one byte followed by the n characters; returns n + 1, or 0 when n
// exceeds `room`. Only n is compared with the room, so a room of exactly n
// writes n + 1 bytes: callers size `buffer` for room + 1.
size_t nmb_copy_as_pascal_string_info_buffer(const char* text, size_t maximum, uint8_t* buffer,
                                             size_t room);

// Header size of a page: its source id (at most 64) and tag (at most 16) plus 24.
size_t nmb_nmbp_header_size(const nmb_page_identity_t& page);
// The same for two plain strings, each cut to its maximum as it is written.
size_t nmb_nmbp_header_size(const char* source_id, const char* source_tag);

// Builds a page's encoded-payload header; returns its size, 0 on failure.
size_t nmb_copy_nmbp_header_into_buffer(const nmb_page_identity_t& page, uint8_t encoding,
                                        uint64_t stream_size, uint8_t* buffer, size_t buffer_size);
// Copies the first 22 bytes of `header` (encoding, stream size, timestamps)
// and writes a new size byte, source id and tag; returns the size, 0 on failure.
size_t nmb_embed_nmbp_header_into_buffer(const uint8_t* header, const char* source_id,
                                         const char* source_tag, uint8_t* buffer,
                                         size_t buffer_size);
// Copies the header's source id and tag (bounded by `header_size` bytes of
// header) into a page's fixed text fields.
void nmb_nmbp_header_copy_identity(const uint8_t* header, size_t header_size,
                                   nmb_page_identity_t& page);

// The size of the blocks a decoded page holds: a page of counters blocks is
// cut at the next counters magic, any other page is one block.
size_t nmb_decoded_page_block_length(nmb::ByteView page);
