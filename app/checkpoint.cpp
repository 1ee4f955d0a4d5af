#include "app/checkpoint.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <sstream>

#include "utils/json_input.h"
#include "utils/json_writer.h"
#include "utils/log.h"

namespace {

constexpr const char* kFormatKey = "nmb_read_checkpoint";
constexpr int kFormatVersion = 1;

void append_u64(std::string& out, uint64_t value) {
  char text[24];
  out.append(text, std::to_chars(text, text + sizeof text, value).ptr);
}

std::string hex_of(const std::string& bytes) {
  std::string hex;
  for (unsigned char c : bytes) {
    hex.push_back("0123456789abcdef"[c >> 4]);
    hex.push_back("0123456789abcdef"[c & 15]);
  }
  return hex;
}

bool bytes_of_hex(const std::string& hex, std::string& bytes) {
  if (hex.size() % 2 != 0) return false;
  bytes.clear();
  for (size_t i = 0; i < hex.size(); i += 2) {
    unsigned value = 0;
    auto r = std::from_chars(hex.data() + i, hex.data() + i + 2, value, 16);
    if (r.ptr != hex.data() + i + 2) return false;
    bytes.push_back(static_cast<char>(value));
  }
  return true;
}

bool get_u64(const nmb::Json& object, const char* key, uint64_t& out) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_number_unsigned()) return false;
  out = it->get<uint64_t>();
  return true;
}

// The entries of a parsed document; false when it is not a checkpoint.
bool decode(const nmb::Json& doc, nmb_checkpoint_t& checkpoint, std::string& why) {
  if (!doc.is_object() || !doc.contains(kFormatKey) || doc[kFormatKey] != kFormatVersion ||
      !doc.contains("files") || !doc["files"].is_array()) {
    why = "not a checkpoint of this version";
    return false;
  }
  for (const nmb::Json& file : doc["files"]) {
    nmb_checkpoint_entry_t entry;
    const bool named =
        file.is_object() && ((file.contains("path") && file["path"].is_string()) ||
                             (file.contains("path_hex") && file["path_hex"].is_string()));
    if (!named || !get_u64(file, "device", entry.device) || !get_u64(file, "inode", entry.inode) ||
        !get_u64(file, "offset", entry.offset) ||
        !get_u64(file, "first_timestamp", entry.first_timestamp)) {
      why = "an entry without path, device, inode, offset or first_timestamp";
      return false;
    }
    if (file.contains("path")) {
      entry.path = file["path"].get<std::string>();
    } else if (!bytes_of_hex(file["path_hex"].get<std::string>(), entry.path)) {
      why = "a path_hex that is not hexadecimal";
      return false;
    }
    checkpoint.files.push_back(std::move(entry));
  }
  return true;
}

}  // namespace

const nmb_checkpoint_entry_t* nmb_checkpoint_t::find(uint64_t device, uint64_t inode,
                                                     uint64_t first_timestamp) const {
  for (const nmb_checkpoint_entry_t& entry : files) {
    if (entry.device == device && entry.inode == inode && entry.first_timestamp == first_timestamp)
      return &entry;
  }
  return nullptr;
}

std::optional<nmb_checkpoint_t> nmb_checkpoint_read(const std::string& path) {
  nmb_checkpoint_t checkpoint;
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 && errno == ENOENT) return checkpoint;
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to read checkpoint %s: %s", path.c_str(), std::strerror(errno));
    return std::nullopt;
  }
  std::stringstream text;
  text << in.rdbuf();
  std::string why = "not JSON";
  std::optional<nmb::Json> doc = nmb::json_parse_text(text.str());
  if (!doc || !decode(*doc, checkpoint, why)) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to read checkpoint %s: %s", path.c_str(), why.c_str());
    return std::nullopt;
  }
  return checkpoint;
}

bool nmb_checkpoint_write(const std::string& path, const nmb_checkpoint_t& checkpoint) {
  std::string text = "{\"";
  text.append(kFormatKey).append("\":");
  append_u64(text, kFormatVersion);
  text.append(",\"files\":[");
  for (size_t i = 0; i < checkpoint.files.size(); ++i) {
    const nmb_checkpoint_entry_t& entry = checkpoint.files[i];
    text.append(i == 0 ? "\n" : ",\n").append("{");
    if (nmb::json_is_valid_utf8(entry.path.data(), entry.path.size()) &&
        entry.path.find('\0') == std::string::npos) {
      text.append("\"path\":");
      nmb::json_append_string(text, entry.path);
    } else {
      text.append("\"path_hex\":\"").append(hex_of(entry.path)).append("\"");
    }
    text.append(",\"device\":");
    append_u64(text, entry.device);
    text.append(",\"inode\":");
    append_u64(text, entry.inode);
    text.append(",\"offset\":");
    append_u64(text, entry.offset);
    text.append(",\"first_timestamp\":");
    append_u64(text, entry.first_timestamp);
    text.append("}");
  }
  text.append("\n]}\n");

  const std::string temporary = path + ".tmp";
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  bool ok = fd >= 0;
  for (size_t done = 0; ok && done < text.size();) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) done += static_cast<size_t>(n);
  }
  ok = ok && fsync(fd) == 0;
  const int saved = errno;
  if (fd >= 0) close(fd);
  ok = ok && std::rename(temporary.c_str(), path.c_str()) == 0;
  if (!ok) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to write checkpoint %s: %s", path.c_str(),
            std::strerror(errno != 0 ? errno : saved));
    unlink(temporary.c_str());
    return false;
  }
  // The rename itself is made durable with the folder.
  const std::string::size_type slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const int dir = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    fsync(dir);
    close(dir);
  }
  return true;
}
