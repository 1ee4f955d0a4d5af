#include "data/packed_page.h"

#include <libdeflate.h>
#include <snappy-c.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "data/format.h"
#include "utils/log.h"

namespace {

uint64_t gzip_decoded_size(const uint8_t* stream, size_t stream_size) {
  if (stream_size < 2 || stream[0] != 0x1F || stream[1] != 0x8B) {
    NMB_LOG(NMB_LOG_ERROR, "[encoded_data] Error: stream is not gzip compressed data");
    return 0;
  }
  if (stream_size <= 3) {
    NMB_LOG(NMB_LOG_ERROR, "[encoded_data] Error: Compressed data is too small");
    return 0;
  }
  // RFC 1952 trailer: the size of the original data modulo 2^32.
  return nmb_load_u32(stream + stream_size - 4);
}

// zlib's reading of a gzip page, the reference for every outcome and message.
bool gzip_decode_zlib(const uint8_t* stream, size_t stream_size, uint8_t* out, size_t out_size) {
  z_stream zs{};
  if (inflateInit2(&zs, 31) != Z_OK) {  // 15 + 16: gzip streams only
    NMB_LOG(NMB_LOG_ERROR, "[encoded_data] inflateInit failed while decompressing.");
    return false;
  }
  // One call over the whole stream and the whole output area; uInt bounds
  // both, and the callers keep both far below 4 GiB.
  zs.next_in = const_cast<Bytef*>(stream);
  zs.avail_in = static_cast<uInt>(std::min<size_t>(stream_size, UINT32_MAX));
  zs.next_out = out;
  zs.avail_out = static_cast<uInt>(std::min<size_t>(out_size, UINT32_MAX));
  int result = inflate(&zs, Z_NO_FLUSH);
  // A stream that inflates completely but to fewer bytes than its trailer
  // announced (zlib's own length check) is an output area that was not
  // filled, like a stream cut short, and not a corrupt stream.
  if (result == Z_DATA_ERROR && zs.msg != nullptr &&
      std::strcmp(zs.msg, "incorrect length check") == 0) {
    result = Z_OK;
  }
  inflateEnd(&zs);
  if (result < 0) {
    NMB_LOG(NMB_LOG_ERROR, "[encoded_data] zlib error while decompressing");
    return false;
  }
  if (result != Z_STREAM_END) {
    NMB_LOG(NMB_LOG_ERROR, "[encoded_data] zlib decompression failed");
    return false;
  }
  // A stream may end before the output area is full (bytes after the gzip
  // member make the size field): the rest of the page reads as zeros.
  std::memset(zs.next_out, 0, zs.avail_out);
  return true;
}

struct DecompressorFree {
  void operator()(libdeflate_decompressor* d) const { libdeflate_free_decompressor(d); }
};

// libdeflate decodes a whole member in one call, much faster than zlib; a
// stream it decodes completely (data and length checks passed) decodes to
// the same bytes with zlib. Anything else, a failure of any kind included, is
// decoded again by zlib, so that bad pages keep their outcome and messages.
bool gzip_decode(const uint8_t* stream, size_t stream_size, uint8_t* out, size_t out_size) {
  static thread_local std::unique_ptr<libdeflate_decompressor, DecompressorFree> decompressor(
      libdeflate_alloc_decompressor());
  if (decompressor && out_size <= UINT32_MAX && stream_size <= UINT32_MAX) {
    size_t decoded = 0;
    if (libdeflate_gzip_decompress(decompressor.get(), stream, stream_size, out, out_size,
                                   &decoded) == LIBDEFLATE_SUCCESS &&
        decoded <= out_size) {
      std::memset(out + decoded, 0, out_size - decoded);
      return true;
    }
  }
  return gzip_decode_zlib(stream, stream_size, out, out_size);
}

bool snappy_decode(const uint8_t* stream, size_t stream_size, uint8_t* out, size_t out_size) {
  size_t length = out_size;
  if (snappy_uncompress(reinterpret_cast<const char*>(stream), stream_size,
                        reinterpret_cast<char*>(out), &length) != SNAPPY_OK) {
    NMB_LOG(NMB_LOG_ERROR, "[encoded_data] snappy decompression failed");
    return false;
  }
  return true;
}

// The stream of a payload, or an empty span when header size and stream size
// do not fit in the payload.
bool payload_stream(std::span<const uint8_t> payload, const uint8_t** stream, size_t* stream_size) {
  if (payload.size() < NMB_NMBP_STREAM_SIZE_OFFSET + 4) return false;
  size_t header_size = payload[NMB_NMBP_HEADER_SIZE_OFFSET];
  uint32_t size = nmb_load_u32(payload.data() + NMB_NMBP_STREAM_SIZE_OFFSET);
  if (header_size > payload.size() || size > payload.size() - header_size) return false;
  *stream = payload.data() + header_size;
  *stream_size = size;
  return true;
}

size_t bounded_length(const char* text, size_t maximum) {
  return text == nullptr ? 0 : strnlen(text, maximum);
}

}  // namespace

uint64_t nmb_encoded_stream_decoded_size(uint8_t encoding, const uint8_t* stream,
                                         size_t stream_size) {
  switch (encoding) {
    case NMB_ENCODING_GZIP:
      return gzip_decoded_size(stream, stream_size);
    case NMB_ENCODING_SNAPPY: {
      size_t length = 0;
      if (snappy_uncompressed_length(reinterpret_cast<const char*>(stream), stream_size, &length) !=
          SNAPPY_OK) {
        return 0;
      }
      return length;
    }
    default:
      return 0;
  }
}

bool nmb_decode_stream(uint8_t encoding, const uint8_t* stream, size_t stream_size, uint8_t* out,
                       size_t out_size) {
  switch (encoding) {
    case NMB_ENCODING_GZIP:
      return gzip_decode(stream, stream_size, out, out_size);
    case NMB_ENCODING_SNAPPY:
      return snappy_decode(stream, stream_size, out, out_size);
    default:
      return false;
  }
}

uint64_t nmb_encoded_payload_decoded_size(std::span<const uint8_t> payload) {
  const uint8_t* stream = nullptr;
  size_t stream_size = 0;
  if (!payload_stream(payload, &stream, &stream_size)) return 0;
  return nmb_encoded_stream_decoded_size(payload[NMB_NMBP_ENCODING_OFFSET], stream, stream_size);
}

bool nmb_decode_payload_into_buffer(std::span<const uint8_t> payload, uint8_t* buffer,
                                    size_t buffer_size) {
  if (nmb_encoded_payload_decoded_size(payload) != buffer_size) {
    NMB_LOG(NMB_LOG_ERROR, "invalid buffer size to uncompress nmbp data");
    return false;
  }
  const uint8_t* stream = nullptr;
  size_t stream_size = 0;
  if (!payload_stream(payload, &stream, &stream_size)) return false;
  return nmb_decode_stream(payload[NMB_NMBP_ENCODING_OFFSET], stream, stream_size, buffer,
                           buffer_size);
}

bool nmb_decode_payload_into_new_buffer(std::span<const uint8_t> payload, std::vector<uint8_t>& out,
                                        uint64_t* size_out, size_t slack) {
  if (size_out == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "'uncompressed_size' must be allocated");
    return false;
  }
  uint64_t size = nmb_encoded_payload_decoded_size(payload);
  *size_out = size;
  if (size > NMB_MAX_DECODED_PAGE_SIZE) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to allocate data block of size %lu: %s",
            static_cast<unsigned long>(size), std::strerror(ENOMEM));
    return false;
  }
  try {
    out.assign(static_cast<size_t>(size) + slack, 0);
  } catch (const std::bad_alloc&) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to allocate data block of size %lu: %s",
            static_cast<unsigned long>(size), std::strerror(ENOMEM));
    return false;
  }
  if (!nmb_decode_payload_into_buffer(payload, out.data(), static_cast<size_t>(size))) {
    out.clear();
    out.shrink_to_fit();
    return false;
  }
  return true;
}

size_t nmb_copy_as_pascal_string_info_buffer(const char* text, size_t maximum, uint8_t* buffer,
                                             size_t room) {
  size_t n = bounded_length(text, std::min<size_t>(maximum, 255));
  if (n > room) {
    NMB_LOG(NMB_LOG_ERROR,
            "[%s] buffer of %lu bytes is too small to accommodate string of %lu bytes",
            "nmb_copy_as_pascal_string_info_buffer", static_cast<unsigned long>(room),
            static_cast<unsigned long>(n));
    return 0;
  }
  buffer[0] = static_cast<uint8_t>(n);
  if (n > 0) std::memcpy(buffer + 1, text, n);
  return n + 1;
}

size_t nmb_nmbp_header_size(const nmb_page_identity_t& page) {
  return strnlen(page.source_id, NMB_NMBP_MAX_SOURCE_ID) +
         strnlen(page.source_tag, NMB_NMBP_MAX_SOURCE_TAG) + NMB_NMBP_HEADER_BASE_SIZE;
}

size_t nmb_nmbp_header_size(const char* source_id, const char* source_tag) {
  return bounded_length(source_id, NMB_NMBP_MAX_SOURCE_ID) +
         bounded_length(source_tag, NMB_NMBP_MAX_SOURCE_TAG) + NMB_NMBP_HEADER_BASE_SIZE;
}

namespace {

// Writes the size byte, the source id and the tag after the 22 fixed bytes.
size_t write_identity(const char* source_id, size_t id_length, const char* source_tag,
                      size_t tag_length, size_t header_size, uint8_t* buffer, size_t buffer_size) {
  buffer[NMB_NMBP_HEADER_SIZE_OFFSET] = static_cast<uint8_t>(header_size);
  // The header size check before guarantees room for both strings.
  size_t at = NMB_NMBP_FIXED_SIZE;
  size_t written =
      nmb_copy_as_pascal_string_info_buffer(source_id, id_length, buffer + at, buffer_size - at);
  if (written == 0) return 0;
  at += written;
  written =
      nmb_copy_as_pascal_string_info_buffer(source_tag, tag_length, buffer + at, buffer_size - at);
  if (written == 0) return 0;
  return header_size;
}

}  // namespace

size_t nmb_copy_nmbp_header_into_buffer(const nmb_page_identity_t& page, uint8_t encoding,
                                        uint64_t stream_size, uint8_t* buffer, size_t buffer_size) {
  size_t header_size = nmb_nmbp_header_size(page);
  if (header_size > buffer_size) {
    NMB_LOG(NMB_LOG_ERROR,
            "[%s] buffer of %lu bytes is too small to accommodate NMBP header of %lu bytes",
            "nmb_copy_nmbp_header_into_buffer", static_cast<unsigned long>(buffer_size),
            static_cast<unsigned long>(header_size));
    return 0;
  }
  if (stream_size > UINT32_MAX) {
    // Stored all the same, cut to its low 32 bits.
    NMB_LOG(NMB_LOG_ERROR, "[%s] encoded stream size of %lu bytes is too large",
            "nmb_copy_nmbp_header_into_buffer", static_cast<unsigned long>(stream_size));
  }
  buffer[NMB_NMBP_ENCODING_OFFSET] = encoding;
  nmb_store_u32(buffer + NMB_NMBP_STREAM_SIZE_OFFSET, static_cast<uint32_t>(stream_size));
  nmb_store_u64(buffer + NMB_NMBP_FIRST_TIMESTAMP_OFFSET, page.first_timestamp);
  nmb_store_u64(buffer + NMB_NMBP_LAST_TIMESTAMP_OFFSET, page.last_timestamp);
  // The page's text fields need not be terminated: copy them bounded.
  char source_id[NMB_NMBP_MAX_SOURCE_ID + 1] = {};
  char source_tag[NMB_NMBP_MAX_SOURCE_TAG + 1] = {};
  std::memcpy(source_id, page.source_id, NMB_NMBP_MAX_SOURCE_ID);
  std::memcpy(source_tag, page.source_tag, NMB_NMBP_MAX_SOURCE_TAG);
  return write_identity(source_id, NMB_NMBP_MAX_SOURCE_ID, source_tag, NMB_NMBP_MAX_SOURCE_TAG,
                        header_size, buffer, buffer_size);
}

size_t nmb_embed_nmbp_header_into_buffer(const uint8_t* header, const char* source_id,
                                         const char* source_tag, uint8_t* buffer,
                                         size_t buffer_size) {
  size_t header_size = nmb_nmbp_header_size(source_id, source_tag);
  if (header_size > buffer_size) {
    NMB_LOG(NMB_LOG_ERROR,
            "[%s] buffer of %lu bytes is too small to accommodate NMBP header of %lu bytes",
            "nmb_embed_nmbp_header_into_buffer", static_cast<unsigned long>(buffer_size),
            static_cast<unsigned long>(header_size));
    return 0;
  }
  std::memmove(buffer, header, NMB_NMBP_FIXED_SIZE);
  return write_identity(source_id, NMB_NMBP_MAX_SOURCE_ID, source_tag, NMB_NMBP_MAX_SOURCE_TAG,
                        header_size, buffer, buffer_size);
}

void nmb_nmbp_header_copy_identity(const uint8_t* header, size_t header_size,
                                   nmb_page_identity_t& page) {
  std::memset(page.source_id, 0, sizeof page.source_id);
  std::memset(page.source_tag, 0, sizeof page.source_tag);
  size_t at = NMB_NMBP_FIXED_SIZE;
  if (at >= header_size) return;
  size_t id_length = std::min<size_t>({header[at], NMB_NMBP_MAX_SOURCE_ID, header_size - at - 1});
  std::memcpy(page.source_id, header + at + 1, id_length);
  at += 1 + header[at];
  if (at >= header_size) return;
  size_t tag_length = std::min<size_t>({header[at], NMB_NMBP_MAX_SOURCE_TAG, header_size - at - 1});
  std::memcpy(page.source_tag, header + at + 1, tag_length);
}

namespace {

nmb_block_type_t block_type_at(nmb::ByteView view, size_t offset) {
  uint8_t magic[4];
  view.copy(offset, magic, sizeof magic);
  return nmb_classify_block(magic);
}

}  // namespace

size_t nmb_decoded_page_block_length(nmb::ByteView page) {
  const size_t size = page.size();
  if (size > NMB_COUNTERS_BLOCK_HEADER_SIZE && block_type_at(page, 0) == NMB_COUNTERS_BLOCK) {
    for (size_t offset = NMB_COUNTERS_BLOCK_HEADER_SIZE; offset < size; offset += 4) {
      if (block_type_at(page, offset) == NMB_COUNTERS_BLOCK) return offset;
    }
  }
  return size;
}
