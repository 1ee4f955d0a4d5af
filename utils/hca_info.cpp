#include "utils/hca_info.h"

#include <glob.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "utils/env.h"
#include "utils/json_writer.h"
#include "utils/log.h"
#include "utils/md5.h"
#include "utils/string_array.h"

size_t nmb_hca_info_count(const nmb_hca_info_t* records, size_t capacity) {
  size_t n = 0;
  while (n < capacity && records[n].hca_name[0] != '\0') ++n;
  return n;
}

bool nmb_hca_info_digest(const nmb_hca_info_t* records, size_t capacity, uint8_t (&digest)[16]) {
  return nmb_md5(records, nmb_hca_info_count(records, capacity) * sizeof(nmb_hca_info_t), digest);
}

int nmb_hca_info_to_json(const uint64_t* timestamp, const nmb_hca_info_t* records, size_t capacity,
                         std::string& text) {
  text.clear();
  nmb::JsonWriter w(text, false);
  w.begin_object();
  if (timestamp != nullptr) {
    w.key("timestamp");
    w.number(static_cast<double>(*timestamp));
  }
  const size_t count = nmb_hca_info_count(records, capacity);
  for (size_t i = 0; i < count; ++i) {
    const nmb_hca_info_t& r = records[i];
    const int name_length = static_cast<int>(strnlen(r.hca_name, NMB_HCA_NAME_SIZE));
    auto member = [&](const char* field, const char* value) {
      char key[100];
      std::snprintf(key, sizeof key, "%.*s.%.*s", name_length, r.hca_name, 20, field);
      // GUID digits come from sysfs or from data: a value that is not text
      // is a field that cannot be set, and is left out.
      std::string_view digits(value, strnlen(value, NMB_HCA_GUID_SIZE));
      if (!nmb::json_is_valid_utf8(digits.data(), digits.size())) {
        NMB_LOG(NMB_LOG_ERROR, "HCA info: unable to set '%s' field", key);
        return;
      }
      w.key(key);
      w.string(digits);
    };
    member("node_guid", r.node_guid);
    member("system_image_guid", r.system_image_guid);
    member("port_1_guid", r.port_1_guid);
    if (r.port_2_guid[0] != '\0') member("port_2_guid", r.port_2_guid);
  }
  w.end_object();
  return 1;
}

void nmb_hca_info_parse_guid(const char* text, size_t length, char (&field)[NMB_HCA_GUID_SIZE]) {
  std::memset(field, 0, sizeof field);
  if (length > 40) length = 40;
  if (length >= 21) {
    text += 20;
    length -= 20;
  }
  size_t out = 0;
  for (size_t i = 0; i < length && out < NMB_HCA_GUID_SIZE; ++i) {
    if (i % 5 == 4) continue;
    field[out++] = text[i];
  }
}

namespace {

void read_guid_file(const std::string& path, char (&field)[NMB_HCA_GUID_SIZE]) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "HCA info: failed to read file %s: %s", path.c_str(),
            std::strerror(errno));
    return;
  }
  char text[40];
  const size_t n = std::fread(text, 1, sizeof text, file);
  const bool failed = std::ferror(file) != 0;
  std::fclose(file);
  if (failed) {
    NMB_LOG(NMB_LOG_ERROR, "HCA info: failed to read file %s: %s", path.c_str(),
            std::strerror(EIO));
    return;
  }
  nmb_hca_info_parse_guid(text, n, field);
}

}  // namespace

void nmb_hca_info_fill(nmb_hca_info_t* records, size_t capacity, const char* root) {
  const std::string pattern = std::string(root) + "/*";
  glob_t found{};
  const int status = glob(pattern.c_str(), 0, nullptr, &found);
  if (status != 0) {
    if (status == GLOB_NOMATCH) {
      NMB_LOG(NMB_LOG_WARNING, "HCA info: globing found no matches of '%s'", pattern.c_str());
    } else if (status == GLOB_NOSPACE) {
      NMB_LOG(NMB_LOG_ERROR, "HCA info: globing ran out of space");
    } else {
      NMB_LOG(NMB_LOG_ERROR, "HCA info: globing read failed: %s", std::strerror(errno));
    }
    globfree(&found);
    return;
  }
  nmb_string_array_t names;
  for (size_t i = 0; i < found.gl_pathc; ++i) {
    const char* path = found.gl_pathv[i];
    const char* slash = std::strrchr(path, '/');
    nmb_string_array_append(names, slash != nullptr ? slash + 1 : path);
  }
  globfree(&found);
  if (names.size() > capacity) {
    NMB_LOG(NMB_LOG_WARNING, "HCA info: %zu of %zu found HCAs will not fit array of %d elements",
            names.size() - capacity, names.size(), static_cast<int>(capacity));
    names.resize(capacity);
  }
  for (size_t i = 0; i < names.size(); ++i) {
    nmb_hca_info_t& r = records[i];
    std::memset(&r, 0, sizeof r);
    const std::string& name = names[i];
    if (name.size() > NMB_HCA_NAME_SIZE) {
      NMB_LOG(NMB_LOG_WARNING, "HCA info: name %s does not fit %zu buffer", name.c_str(),
              NMB_HCA_NAME_SIZE);
    }
    std::memcpy(r.hca_name, name.data(), std::min(name.size(), NMB_HCA_NAME_SIZE));
    const std::string base = std::string(root) + "/" + name;
    read_guid_file(base + "/sys_image_guid", r.system_image_guid);
    read_guid_file(base + "/node_guid", r.node_guid);
    read_guid_file(base + "/ports/1/gids/0", r.port_1_guid);
    read_guid_file(base + "/ports/2/gids/0", r.port_2_guid);
  }
}

char* nmb_get_host_name(char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return nullptr;
  if (const char* name = nmb_getenv("NMB_HOST_NAME")) {
    std::strncpy(buffer, name, size - 1);
    buffer[size - 1] = '\0';
    return buffer;
  }
  if (gethostname(buffer, size - 1) != 0) return nullptr;
  buffer[size - 1] = '\0';
  if (char* dot = std::strchr(buffer, '.')) *dot = '\0';
  return buffer;
}

bool nmb_client_id_create(nmb_client_id_t& id) {
  std::memset(&id, 0, sizeof id);
  return nmb_get_host_name(id.host_name, sizeof id.host_name) != nullptr;
}
