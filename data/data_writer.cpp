#include "data/data_writer.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <system_error>

#include "utils/env.h"
#include "utils/hca_info.h"
#include "utils/log.h"

namespace nmb {

namespace {

// Size of the file at `path`, or -1 when there is none.
int64_t file_length(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
  return static_cast<int64_t>(st.st_size);
}

// Files shorter than 2 bytes count as missing.
bool file_missing_or_short(const std::string& path) {
  return file_length(path) < 2;
}

std::string folder_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

std::string text_field(const uint8_t* field, size_t size) {
  const char* text = reinterpret_cast<const char*>(field);
  return std::string(text, strnlen(text, size));
}

uint64_t realtime_microseconds() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

// The content class of a page, for the filter's content list.
const char* content_class(const DataPage& page, uint64_t filled) {
  filled = std::min<uint64_t>(filled, page.size());  // an offset past the buffer is cut to it
  if (filled <= NMB_DATA_PAGE_HEADER_SIZE) return "EMPTY";
  uint8_t magic[4] = {};
  std::memcpy(magic, page.data() + NMB_DATA_PAGE_HEADER_SIZE,
              std::min<uint64_t>(4, filled - NMB_DATA_PAGE_HEADER_SIZE));
  switch (nmb_classify_block(magic)) {
    case NMB_COUNTERS_BLOCK:
      return "COUNTERS";
    case NMB_EVENTS_BLOCK:
      return "EVENTS";
    case NMB_SCHEMAS_BLOCK:
      return "SCHEMAS";
    case NMB_CNTX_BLOCK:
      return "CNTX/METRICS";
    default:
      return "OPAQUE_EVENTS";
  }
}

bool listed(const std::vector<std::string>& list, const std::string& value) {
  if (list.empty()) return true;
  for (const std::string& item : list)
    if (item == value) return true;
  return false;
}

}  // namespace

bool DataPageFilter::passes(const DataPage& page) const {
  const uint8_t* p = page.data();
  if (!listed(tags, text_field(p + NMB_DP_SOURCE_TAG, NMB_DP_SOURCE_TAG_SIZE))) return false;
  if (!listed(sources, text_field(p + NMB_DP_SOURCE_ID, NMB_DP_SOURCE_ID_SIZE))) return false;
  return listed(contents, content_class(page, nmb_load_u64(p + NMB_DP_FILLED)));
}

void nmb_build_file_header(uint8_t (&header)[NMB_FILE_HEADER_SIZE], uint64_t first_timestamp,
                           uint32_t block_size, const std::string& source_id,
                           const std::string& source_tag, const uint8_t* counters_id16,
                           const uint8_t* event_ids) {
  std::memset(header, 0, sizeof header);
  std::memcpy(header + NMB_FH_MAGIC, "NMBF", 4);
  header[NMB_FH_VERSION] = NMB_FILE_VERSION_MAJOR;
  header[NMB_FH_VERSION + 1] = NMB_FILE_VERSION_MINOR;
  nmb_store_u16(header + NMB_FH_VERSION + 2, NMB_FILE_VERSION_PATCH);
  nmb_store_u64(header + NMB_FH_FILE_SIZE, NMB_FILE_HEADER_SIZE);
  std::memcpy(header + NMB_FH_SOURCE_ID, source_id.data(),
              std::min(source_id.size(), NMB_FH_SOURCE_ID_SIZE - 1));
  std::memcpy(header + NMB_FH_SOURCE_TAG, source_tag.data(),
              std::min(source_tag.size(), NMB_FH_SOURCE_TAG_SIZE - 1));
  nmb_store_u64(header + NMB_FH_FIRST_TIMESTAMP, first_timestamp);
  nmb_store_u64(header + NMB_FH_LAST_TIMESTAMP, 0);
  nmb_store_u32(header + NMB_FH_BLOCK_SIZE, block_size);
  std::memcpy(header + NMB_FH_COUNTERS_SCHEMA_ID, counters_id16, NMB_SCHEMA_ID_SIZE);
  std::memcpy(header + NMB_FH_EVENT_SCHEMA_IDS, event_ids,
              NMB_FH_EVENT_SCHEMA_COUNT * NMB_SCHEMA_ID_SIZE);
  header[NMB_FH_BYTE_ORDER] = 0;
  std::memcpy(header + NMB_FH_MAGIC_END, "nmbf", 4);
}

DataWriter::DataWriter(DataWriterConfig config) : config_(std::move(config)) {}

DataWriter::~DataWriter() {
  for (auto& [key, state] : states_) close_current(state);
}

void DataWriter::set_initial_schema_ids(const uint8_t* counters_id16, const uint8_t* event_ids) {
  std::memcpy(initial_counters_id_, counters_id16, sizeof initial_counters_id_);
  std::memcpy(initial_event_ids_, event_ids, sizeof initial_event_ids_);
}

bool DataWriter::save_page(const DataPage& page, const nmb_type_system_t* /*ts*/) {
  const uint8_t* p = page.data();
  const size_t size = page.size();
  if (p[NMB_DP_VERSION_MAJOR] != 1 || p[NMB_DP_VERSION_MINOR] < 7) {
    NMB_LOG(NMB_LOG_WARNING, "[data_writer] Received incompatible data page. Skipping.");
    return true;
  }
  // A filled offset outside the buffer is cut to it.
  const uint64_t filled =
      std::clamp<uint64_t>(nmb_load_u64(p + NMB_DP_FILLED), NMB_DATA_PAGE_HEADER_SIZE, size);
  if (filled == NMB_DATA_PAGE_HEADER_SIZE) {
    NMB_LOG(NMB_LOG_DEBUG, "[data_writer] Received empty data page. Skipping.");
    return true;
  }
  if (config_.filtering && !config_.filter.passes(page)) return true;

  const std::string source_id = text_field(p + NMB_DP_SOURCE_ID, NMB_DP_SOURCE_ID_SIZE);
  const std::string source_tag = text_field(p + NMB_DP_SOURCE_TAG, NMB_DP_SOURCE_TAG_SIZE);
  auto [it, created] = states_.try_emplace({source_id, source_tag});
  OutputState& state = it->second;
  if (created) {
    state.source_id = source_id;
    state.source_tag = source_tag;
    std::memcpy(state.counters_schema_id, initial_counters_id_, sizeof initial_counters_id_);
    std::memcpy(state.event_schema_ids, initial_event_ids_, sizeof initial_event_ids_);
  }

  // The first block names the layout of what follows.
  const uint8_t* data = p + NMB_DATA_PAGE_HEADER_SIZE;
  const size_t data_room = size - NMB_DATA_PAGE_HEADER_SIZE;
  uint8_t magic[4] = {};
  std::memcpy(magic, data, std::min<size_t>(4, data_room));
  const nmb_block_type_t type = nmb_classify_block(magic);
  switch (type) {
    case NMB_COUNTERS_BLOCK:
      if (std::memcmp(state.counters_schema_id, p + NMB_DP_COUNTERS_SCHEMA_ID,
                      NMB_SCHEMA_ID_SIZE) != 0) {
        std::memcpy(state.counters_schema_id, p + NMB_DP_COUNTERS_SCHEMA_ID, NMB_SCHEMA_ID_SIZE);
        close_current(state);
      }
      break;
    case NMB_EVENTS_BLOCK:
      NMB_LOG(NMB_LOG_WARNING,
              "[data_writer] First data block is NMBE. No schema ids could be extracted.");
      break;
    case NMB_SCHEMAS_BLOCK: {
      uint8_t ids[NMB_FH_EVENT_SCHEMA_COUNT][NMB_SCHEMA_ID_SIZE] = {};
      const size_t at = NMB_SCHEMAS_BLOCK_IDS;
      if (data_room > at) std::memcpy(ids, data + at, std::min(sizeof ids, data_room - at));
      for (size_t i = 0; i < NMB_FH_EVENT_SCHEMA_COUNT; ++i) {
        if (std::memcmp(state.event_schema_ids[i], ids[i], NMB_SCHEMA_ID_SIZE) != 0) {
          std::memcpy(state.event_schema_ids[i], ids[i],
                      (NMB_FH_EVENT_SCHEMA_COUNT - i) * NMB_SCHEMA_ID_SIZE);
          close_current(state);
          break;
        }
      }
      break;
    }
    case NMB_PAGE_BLOCK:
      NMB_LOG(NMB_LOG_DEBUG, "[data_writer] First data block is NMBP.");
      break;
    case NMB_CNTX_BLOCK:
      NMB_LOG(NMB_LOG_DEBUG, "[data_writer] First data block is CNTX.");
      break;
    default: {
      NMB_LOG(NMB_LOG_WARNING,
              "[data_writer] Unrecognized type of data page. Cannot save to file.");
      NMB_LOG(NMB_LOG_WARNING, "[data_writer] type: %d ", type);
      return false;
    }
  }

  // Whole chunks: the data rounded up to the block size.
  uint64_t block_size = nmb_load_u32(p + NMB_DP_BLOCK_SIZE);
  if (block_size == 0) block_size = data_room;  // not 0: the page holds data
  const uint64_t chunks = (block_size + filled - 721) / block_size;
  if (state.block_size != block_size) {
    state.block_size = static_cast<uint32_t>(block_size);
    close_current(state);
  }

  uint64_t first = nmb_load_u64(p + NMB_DP_FIRST_TIMESTAMP);
  if (first == 0) {
    NMB_LOG(NMB_LOG_DEBUG, "[data_page] page %p, first_timestamp = %lu",
            static_cast<const void*>(p), static_cast<unsigned long>(first));
    NMB_LOG(NMB_LOG_ERROR,
            "[data_page] going to return local timestamp rather than (correct) remote timestamp");
    first = realtime_microseconds();
  }
  const uint64_t last = nmb_load_u64(p + NMB_DP_LAST_TIMESTAMP);
  bool opened = false;
  open_for_timestamp(state, first, last, opened);
  state.last_timestamp = last;
  size_t appended = 0;
  if (state.path.empty()) {
    // Nothing is lost silently: a page with no file to go to is named.
    NMB_LOG(NMB_LOG_WARNING,
            "[data_writer] Page of source '%s' tag '%s' from %lu was not written: no output file",
            state.source_id.c_str(), state.source_tag.c_str(), static_cast<unsigned long>(first));
  } else {
    const uint64_t length = chunks * block_size;
    if (length <= data_room) {
      appended = append(state, data, static_cast<size_t>(length));
    } else {
      // Chunks reaching past the buffer end in zeros.
      std::vector<uint8_t> padded(static_cast<size_t>(length), 0);
      std::memcpy(padded.data(), data, data_room);
      appended = append(state, padded.data(), padded.size());
    }
  }
  ++losses_.pages;
  if (appended == 0 && losses_.lost++ == 0) {
    losses_.first = !state.path.empty() ? state.path
                                        : "no output file for source '" + state.source_id +
                                              "' tag '" + state.source_tag + "'";
  }

  if (config_.data_size_limit != 0) {
    if (opened) {
      if (!state.path.empty()) {
        written_.emplace_back(state.path, 0);
      } else {
        NMB_LOG(NMB_LOG_ERROR, "[data_writer] Failed to get file path after rotation");
      }
    }
    if (!written_.empty()) {
      written_.back().second += appended;
      total_written_ += appended;
      enforce_data_size_limit();
    }
  }
  if (config_.node_info && !state.path.empty()) write_node_info(state);
  return true;
}

bool DataWriter::open_for_timestamp(OutputState& state, uint64_t first, uint64_t last,
                                    bool& opened) {
  opened = false;
  const uint64_t current = state.first_timestamp;
  bool keep = false;
  if (current == 0) {
    keep = false;
  } else if (!state.path.empty() && file_missing_or_short(state.path)) {
    keep = false;
  } else if (first == current) {
    return true;
  } else if (state.file_size >= config_.file_size_limit) {
    keep = false;
  } else if (last < current) {
    NMB_LOG(NMB_LOG_WARNING, "first_timestamp %luis greater than current timestamp: %lu",
            static_cast<unsigned long>(current), static_cast<unsigned long>(last));
    keep = false;
  } else if (last - current < config_.time_span_limit) {
    keep = !state.path.empty();
  }
  if (keep) return true;

  close_current(state);
  state.first_timestamp = first;
  state.last_timestamp = 0;
  state.file_size = 0;
  const std::string id = first != 0 ? std::to_string(first) : std::string();
  nmb_path_values_t values;
  values.source = state.source_id;
  values.tag = state.source_tag;
  values.node = config_.node;
  values.port = config_.port;
  values.timestamp = first;
  values.id = id;
  std::string relative;
  if (!nmb_path_template_expand(config_.path_template, values, relative) || relative.empty()) {
    state.path.clear();
    return false;
  }
  state.path = config_.output_dir + "/" + relative;
  const int64_t existing = file_length(state.path);
  if (existing >= 2) {
    NMB_LOG(NMB_LOG_DEBUG, "[data_file] Append data to an existing file %s", state.path.c_str());
    if (config_.made_by_run && config_.made_by_run->insert(state.path).second) {
      NMB_LOG(NMB_LOG_WARNING,
              "[data_file] %s was there before this run: its pages are appended to it, so a "
              "second export into the same -o folder holds its pages twice. Use an empty -o "
              "folder",
              state.path.c_str());
    }
    state.file_size = static_cast<uint64_t>(existing);
    opened = true;
    return true;
  }
  if (!create_file(state)) return false;
  if (config_.made_by_run) config_.made_by_run->insert(state.path);
  opened = true;
  return true;
}

bool DataWriter::create_file(OutputState& state) {
  const std::string folder = folder_of(state.path);
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  std::string problem;
  if (!std::filesystem::is_directory(folder)) {
    problem = error ? error.message() : "Inaccessible data path " + folder;
  }
  if (!problem.empty()) {
    if (state.ok) {
      NMB_LOG(NMB_LOG_ERROR, "[data_file] Failed to create data file %s: %s", state.path.c_str(),
              problem.c_str());
    }
    state.ok = false;
    state.path.clear();
    return false;
  }
  auto fail = [&](const char* format, int code) {
    if (state.ok) {
      NMB_LOG(NMB_LOG_ERROR, format, state.path.c_str(), std::strerror(code));
      NMB_LOG(NMB_LOG_ERROR, "[data_file] Failed to create empty data file %s: %s",
              state.path.c_str(), std::strerror(code));
    }
    state.ok = false;
    state.file.reset();
    state.path.clear();
    return false;
  };
  errno = 0;
  std::unique_ptr<std::FILE, FileCloser> file(std::fopen(state.path.c_str(), "wb"));
  if (!file) return fail("[data_file] Failed to open file %s for writing: %s", errno);
  uint8_t header[NMB_FILE_HEADER_SIZE];
  nmb_build_file_header(header, state.first_timestamp, state.block_size, state.source_id,
                        state.source_tag, state.counters_schema_id, &state.event_schema_ids[0][0]);
  if (std::fwrite(header, 1, sizeof header, file.get()) != sizeof header ||
      std::fflush(file.get()) != 0) {
    return fail("[data_file] Failed writing header of the data file %s: %s", errno ? errno : EIO);
  }
  state.file_size = NMB_FILE_HEADER_SIZE;
  if (config_.keep_open) state.file = std::move(file);
  return true;
}

size_t DataWriter::append(OutputState& state, const uint8_t* bytes, size_t count) {
  if (!state.file) {
    errno = 0;
    state.file.reset(std::fopen(state.path.c_str(), "ab"));
    if (!state.file) {
      if (state.ok) {
        NMB_LOG(NMB_LOG_ERROR, "[data_file] Failed to open data file %s for writing: %s",
                state.path.c_str(), std::strerror(errno));
      }
      state.ok = false;
      close_current(state);
      return 0;
    }
  }
  errno = 0;
  if (std::fwrite(bytes, 1, count, state.file.get()) != count ||
      std::fflush(state.file.get()) != 0) {
    if (state.ok) {
      NMB_LOG(NMB_LOG_ERROR, "[data_file] Failed appending data file %s: %s", state.path.c_str(),
              std::strerror(errno ? errno : EIO));
    }
    state.ok = false;
    close_current(state);
    return 0;
  }
  state.file_size += count;
  state.ok = true;
  if (!config_.keep_open) {
    state.file.reset();
    rewrite_header(state);
  }
  return count;
}

bool DataWriter::rewrite_header(OutputState& state) {
  state.file.reset();
  if (file_missing_or_short(state.path)) {
    NMB_LOG(NMB_LOG_DEBUG, "[data_file] File %s does not exist, skipping header update",
            state.path.c_str());
    return true;
  }
  errno = 0;
  std::unique_ptr<std::FILE, FileCloser> file(std::fopen(state.path.c_str(), "rb+"));
  if (!file) {
    NMB_LOG(NMB_LOG_ERROR, "[data_file] Failed opening data file %s: %s", state.path.c_str(),
            std::strerror(errno));
    return false;
  }
  uint8_t header[NMB_FILE_HEADER_SIZE];
  if (std::fread(header, 1, sizeof header, file.get()) != sizeof header) {
    NMB_LOG(NMB_LOG_ERROR, "[data_file] Failed reading header of data file %s: %s",
            state.path.c_str(), std::strerror(errno ? errno : EIO));
    return false;
  }
  if (!nmb_check_file_header(header)) {
    NMB_LOG(NMB_LOG_ERROR, "[data_file] Header of file %s is invalid. Will not update.",
            state.path.c_str());
    return false;
  }
  if (nmb_header_first_timestamp(header) == 0)
    nmb_store_u64(header + NMB_FH_FIRST_TIMESTAMP, state.first_timestamp);
  nmb_store_u64(header + NMB_FH_LAST_TIMESTAMP, state.last_timestamp);
  nmb_store_u64(header + NMB_FH_FILE_SIZE, state.file_size);
  if (std::fseek(file.get(), 0, SEEK_SET) != 0) {
    NMB_LOG(NMB_LOG_ERROR, "[data_file] Failed moving to the beginning of file %s: %s",
            state.path.c_str(), std::strerror(errno));
    return false;
  }
  if (std::fwrite(header, 1, sizeof header, file.get()) != sizeof header ||
      std::fflush(file.get()) != 0) {
    NMB_LOG(NMB_LOG_ERROR, "[data_file] Failed writing data page header to file %s: %s",
            state.path.c_str(), std::strerror(errno ? errno : EIO));
    return false;
  }
  NMB_LOG(NMB_LOG_DEBUG, "[data_file] updated header %s with last_ts :%lu", state.path.c_str(),
          static_cast<unsigned long>(state.last_timestamp));
  return true;
}

void DataWriter::close_current(OutputState& state) {
  state.file.reset();
  if (!state.path.empty()) rewrite_header(state);
  state.path.clear();
}

void DataWriter::enforce_data_size_limit() {
  const uint64_t limit = config_.data_size_limit;
  if (limit == 0) {
    NMB_LOG(NMB_LOG_ERROR, "[data_writer] Cannot enforce data size limit, limit unset.");
    return;
  }
  if (limit >= total_written_) return;
  while (!written_.empty()) {
    const auto& [path, bytes] = written_.front();
    if (file_missing_or_short(path)) {
      NMB_LOG(NMB_LOG_ERROR, "[data_writer] File doesn't exist: %s", path.c_str());
    } else if (std::remove(path.c_str()) != 0) {
      return;
    }
    total_written_ -= std::min(bytes, total_written_);
    written_.pop_front();
    if (config_.file_size_limit + total_written_ <= limit) return;
  }
}

void DataWriter::write_node_info(const OutputState& state) {
  // The host's adapters are read once per writer.
  if (node_table_.empty()) {
    node_table_.resize(NMB_HCA_TABLE_CAPACITY);
    nmb_hca_info_fill(
        node_table_.data(), NMB_HCA_TABLE_CAPACITY,
        config_.infiniband_root.empty() ? NMB_INFINIBAND_ROOT : config_.infiniband_root.c_str());
  }
  const nmb_hca_info_t* table = node_table_.data();
  uint8_t digest[16];
  if (!nmb_hca_info_digest(table, NMB_HCA_TABLE_CAPACITY, digest)) return;
  const std::string folder = folder_of(state.path);
  const std::string digest_text(reinterpret_cast<const char*>(digest), sizeof digest);
  std::string path = folder + "/nodeinfo.json";
  const char* multiple = nmb_getenv("NMB_ALLOW_MULTIPLE_NODEINFO");
  if (multiple != nullptr && nmb_env_is_true(multiple)) {
    path = folder + "/nodeinfo." + std::to_string(state.first_timestamp) + ".json";
  }
  auto known = node_info_digests_.find(path);
  if (known != node_info_digests_.end() && known->second == digest_text && file_length(path) >= 0) {
    return;
  }
  std::string text;
  const uint64_t timestamp = state.first_timestamp;
  if (!nmb_hca_info_to_json(&timestamp, table, NMB_HCA_TABLE_CAPACITY, text)) return;
  std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "wb"));
  if (!file || std::fwrite(text.data(), 1, text.size(), file.get()) != text.size()) {
    NMB_LOG(NMB_LOG_ERROR, "[data_writer] Failed to write node information file %s: %s",
            path.c_str(), std::strerror(errno));
    return;
  }
  node_info_digests_[path] = digest_text;
}

}  // namespace nmb
