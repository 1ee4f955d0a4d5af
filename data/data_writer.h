// The data file writer of -f bin: appends decoded data pages to data files
// under the output folder, one series of files per (source id, source tag),
// starting a new file when the time span, the file size or the data layout
// (block size, schema ids) changes.
// Stage: writer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "data/data_page.h"
#include "data/format.h"
#include "data/path_template.h"
#include "utils/hca_info.h"

struct nmb_type_system_t;

namespace nmb {

// Which pages are written: pages whose source tag and source id are in the
// lists (an empty list takes every value) and whose content class is in the
// content list ("EMPTY", "CNTX/METRICS", "OPAQUE_EVENTS", "COUNTERS",
// "EVENTS", "SCHEMAS"). With no lists configured every valid page passes.
struct DataPageFilter {
  std::vector<std::string> tags;
  std::vector<std::string> sources;
  std::vector<std::string> contents;
  bool passes(const DataPage& page) const;
};

struct DataWriterConfig {
  std::string output_dir = "output";
  std::string path_template = NMB_DEFAULT_PATH_TEMPLATE;
  uint64_t file_size_limit = uint64_t{1} << 30;         // bytes
  uint64_t time_span_limit = uint64_t{3600} * 1000000;  // microseconds
  uint64_t data_size_limit = 0;                         // bytes; 0: no limit
  bool keep_open = false;
  bool filtering = true;
  DataPageFilter filter;
  // The adapter table written beside the data files (nodeinfo.json).
  bool node_info = false;
  std::string infiniband_root;  // empty: the system's
  // The client: its host name and port name the "node" and "port" variables.
  std::string node;
  uint16_t port = 0;
  // The files this run has made (shared by the writers of a run's files):
  // appending to an existing file not among them is warned about once.
  std::shared_ptr<std::set<std::string>> made_by_run;
};

class DataWriter {
 public:
  explicit DataWriter(DataWriterConfig config);
  ~DataWriter();
  DataWriter(const DataWriter&) = delete;
  DataWriter& operator=(const DataWriter&) = delete;

  // The schema ids a new output series starts with: those of the file whose
  // pages are written (a schemas block at the start of a page replaces the
  // event ids).
  void set_initial_schema_ids(const uint8_t* counters_id16, const uint8_t* event_ids);

  // Writes one page (what cannot be written is logged). False when its
  // first block is of no kind a data file holds: the page is not written,
  // and the caller shows its bytes.
  bool save_page(const DataPage& page, const nmb_type_system_t* ts);

  // Pages that went to be written (those the writer skips by its rules not
  // counted), those of them that could not be, and where the first of those
  // was to go (its file, or that it had none and whose it was).
  struct Losses {
    uint64_t pages = 0;
    uint64_t lost = 0;
    std::string first;
  };
  const Losses& losses() const { return losses_; }

 private:
  struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
  };
  struct OutputState {
    std::string source_id;
    std::string source_tag;
    std::string path;
    std::unique_ptr<std::FILE, FileCloser> file;
    uint64_t first_timestamp = 0;
    uint64_t last_timestamp = 0;
    uint64_t file_size = 0;
    uint32_t block_size = 0;
    uint8_t counters_schema_id[NMB_SCHEMA_ID_SIZE] = {};
    uint8_t event_schema_ids[NMB_FH_EVENT_SCHEMA_COUNT][NMB_SCHEMA_ID_SIZE] = {};
    bool ok = true;
  };

  bool open_for_timestamp(OutputState& state, uint64_t first, uint64_t last, bool& opened);
  bool create_file(OutputState& state);
  size_t append(OutputState& state, const uint8_t* bytes, size_t count);
  bool rewrite_header(OutputState& state);
  void close_current(OutputState& state);
  void enforce_data_size_limit();
  void write_node_info(const OutputState& state);

  DataWriterConfig config_;
  uint8_t initial_counters_id_[NMB_SCHEMA_ID_SIZE] = {};
  uint8_t initial_event_ids_[NMB_FH_EVENT_SCHEMA_COUNT][NMB_SCHEMA_ID_SIZE] = {};
  std::map<std::pair<std::string, std::string>, OutputState> states_;
  std::deque<std::pair<std::string, uint64_t>> written_;  // oldest first
  uint64_t total_written_ = 0;
  Losses losses_;
  std::map<std::string, std::string> node_info_digests_;  // file -> digest written
  std::vector<nmb_hca_info_t> node_table_;                // read on first use
};

// The 256-byte header of a new data file.
void nmb_build_file_header(uint8_t (&header)[NMB_FILE_HEADER_SIZE], uint64_t first_timestamp,
                           uint32_t block_size, const std::string& source_id,
                           const std::string& source_tag, const uint8_t* counters_id16,
                           const uint8_t* event_ids);

}  // namespace nmb
