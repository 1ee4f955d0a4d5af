// The baselines for packed pages: decodes every page of a benchmark file of
// gzip or snappy pages (one page at the start of each chunk) and nothing
// else, with zlib, libdeflate or snappy, each page in one call into a buffer
// of its decoded size. Prints the pages and decoded bytes.
//
//   decode_pages zlib|libdeflate|snappy <file>
#include <libdeflate.h>
#include <snappy-c.h>
#include <zlib.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

uint32_t le32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

bool inflate_zlib(const uint8_t* in, size_t size, std::vector<uint8_t>& out) {
  z_stream z{};
  if (inflateInit2(&z, 16 + MAX_WBITS) != Z_OK) return false;
  z.next_in = const_cast<uint8_t*>(in);
  z.avail_in = static_cast<uInt>(size);
  z.next_out = out.data();
  z.avail_out = static_cast<uInt>(out.size());
  const int status = inflate(&z, Z_FINISH);
  inflateEnd(&z);
  return status == Z_STREAM_END;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s zlib|libdeflate|snappy <file>\n", argv[0]);
    return 2;
  }
  const std::string codec = argv[1];
  std::ifstream file(argv[2], std::ios::binary);
  std::vector<uint8_t> header(256);
  if (!file.read(reinterpret_cast<char*>(header.data()), 256)) return 1;
  const uint32_t block_size = le32(header.data() + 112);
  std::vector<uint8_t> chunk(block_size), out;
  libdeflate_decompressor* deflate = libdeflate_alloc_decompressor();
  size_t pages = 0, decoded = 0;
  while (file.read(reinterpret_cast<char*>(chunk.data()), block_size)) {
    const uint8_t header_size = chunk[4];
    const uint32_t stream_size = le32(chunk.data() + 6);
    const uint8_t* stream = chunk.data() + 4 + header_size;
    bool ok;
    if (codec == "snappy") {
      size_t length = 0;
      snappy_uncompressed_length(reinterpret_cast<const char*>(stream), stream_size, &length);
      out.resize(length);
      ok = snappy_uncompress(reinterpret_cast<const char*>(stream), stream_size,
                             reinterpret_cast<char*>(out.data()), &length) == SNAPPY_OK;
    } else {
      out.resize(le32(stream + stream_size - 4));  // the gzip trailer's size
      ok = codec == "zlib" ? inflate_zlib(stream, stream_size, out)
                           : libdeflate_gzip_decompress(deflate, stream, stream_size, out.data(),
                                                        out.size(), nullptr) == LIBDEFLATE_SUCCESS;
    }
    if (!ok) {
      std::fprintf(stderr, "page %zu does not decode\n", pages);
      return 1;
    }
    ++pages;
    decoded += out.size();
  }
  libdeflate_free_decompressor(deflate);
  std::printf("%zu pages, %zu bytes decoded\n", pages, decoded);
  return 0;
}
