#include "app/shard.h"

#include <sys/stat.h>

#include <charconv>
#include <cstring>

namespace {

using u128 = unsigned __int128;

bool parse_u32(const char* begin, const char* end, uint32_t& value) {
  if (begin == end || *begin < '0' || *begin > '9') return false;
  const auto r = std::from_chars(begin, end, value);
  return r.ec == std::errc() && r.ptr == end;
}

uint64_t size_of(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return 0;
  return static_cast<uint64_t>(info.st_size);
}

}  // namespace

bool nmb_parse_shard(const char* text, uint32_t& index, uint32_t& count) {
  const char* slash = std::strchr(text, '/');
  if (slash == nullptr) return false;
  uint32_t k = 0;
  uint32_t n = 0;
  if (!parse_u32(text, slash, k) || !parse_u32(slash + 1, slash + std::strlen(slash), n))
    return false;
  if (n == 0 || n > NMB_MAX_SHARDS || k >= n) return false;
  index = k;
  count = n;
  return true;
}

std::vector<std::string> nmb_shard_paths(const std::vector<std::string>& paths, uint32_t index,
                                         uint32_t count) {
  std::vector<uint64_t> sizes;
  sizes.reserve(paths.size());
  u128 total = 0;
  for (const std::string& path : paths) {
    sizes.push_back(size_of(path));
    total += sizes.back();
  }
  std::vector<std::string> slice;
  u128 before = 0;
  for (size_t i = 0; i < paths.size(); ++i) {
    // Twice the middle of the file's bytes, against twice the slice bounds.
    const u128 slot =
        total == 0 ? u128{i} * count / paths.size() : (before * 2 + sizes[i]) * count / (total * 2);
    before += sizes[i];
    if (slot == index) slice.push_back(paths[i]);
  }
  return slice;
}
