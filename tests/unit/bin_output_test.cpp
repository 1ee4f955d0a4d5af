// The pieces of -f bin: output path templates and their safety, the adapter
// table, and the data file writer's rotation, chunks, header rewrite and data
// size limit.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "data/data_page.h"
#include "data/data_writer.h"
#include "data/format.h"
#include "data/path_template.h"
#include "tests/support/data_builder.h"
#include "tests/support/log_capture.h"
#include "utils/hca_info.h"
#include "utils/output.h"

namespace {

using nmb::test::Bytes;
using nmb::test::ByteVec;
using nmb::test::TempDir;

class PathTemplate : public nmb::test::LoggedTest {
 protected:
  void SetUp() override {
    LoggedTest::SetUp();
    setenv("TZ", "UTC", 1);
    tzset();
  }
};

TEST_F(PathTemplate, VariablesAndTheDefaultLayout) {
  nmb_path_values_t v;
  v.source = "node01";
  v.tag = "ib";
  v.node = "host";
  v.port = 7;
  v.timestamp = 1700000001234567;  // 2023-11-14 22:13:21 UTC
  v.id = "1700000001234567";
  std::string out;
  ASSERT_TRUE(nmb_path_template_expand(NMB_DEFAULT_PATH_TEMPLATE, v, out));
  EXPECT_EQ(out, "2023/1114/node01/ib/node01_ib_1700000001234567.bin");
  ASSERT_TRUE(nmb_path_template_expand(
      "{{hour}}{{minute}}{{second}}-{{node}}:{{port}}-{{timestamp}}-{{other}}-{{hash10}}", v, out));
  EXPECT_EQ(out, "221321-host:7-1700000001234567-{{other}}-" +
                     std::to_string(('n' + 'o' + 'd' + 'e' + '0' + '1') % 10));
  v.source = "0x1f";
  ASSERT_TRUE(nmb_path_template_expand("{{hash7}}", v, out));
  EXPECT_EQ(out, "3");  // 31 % 7
}

TEST_F(PathTemplate, MalformedHashPlaceholders) {
  nmb_path_values_t v;
  std::string out = "x";
  start();
  EXPECT_FALSE(nmb_path_template_expand("a/{{hash8", v, out));
  EXPECT_FALSE(nmb_path_template_expand("a/{{hash0}}", v, out));
  EXPECT_FALSE(nmb_path_template_expand("a/{{hashx2}}", v, out));
  EXPECT_EQ(logged(),
            "[error] path_template expects {{hash[num]}}, missing closing braces\n"
            "[error] path_template expects {{hash[num]}}, '[num]' - a positive integer, actually "
            "received 0\n"
            "[error] path_template expects {{hash[num]}}, '[num]' - a positive integer, actually "
            "received x2\n");
  EXPECT_EQ(out, "");
}

TEST_F(PathTemplate, UntrustedValuesCannotLeaveTheirComponent) {
  EXPECT_EQ(nmb_path_safe_component(".."), "_.");
  EXPECT_EQ(nmb_path_safe_component("../../etc/passwd"), "_._.._etc_passwd");
  EXPECT_EQ(nmb_path_safe_component(".hidden"), "_hidden");
  EXPECT_EQ(nmb_path_safe_component(""), "_");
  EXPECT_EQ(nmb_path_safe_component(std::string("a\0b", 3)), "a");
  EXPECT_EQ(nmb_path_safe_component("a b\n\x7f\xc3\xa9-_.Z9"), "a_b____-_.Z9");
  nmb_path_values_t v;
  v.source = "/dev/sda";
  v.tag = "..";
  std::string out;
  ASSERT_TRUE(nmb_path_template_expand("{{source}}/{{tag}}", v, out));
  EXPECT_EQ(out, "_dev_sda/_.");
}

using HcaInfo = nmb::test::LoggedTest;

TEST_F(HcaInfo, GuidFilesTableJsonAndDigest) {
  char field[NMB_HCA_GUID_SIZE];
  const std::string gid = "fe80:0000:0000:0000:0002:c903:0010:a2b3\n";
  nmb_hca_info_parse_guid(gid.data(), gid.size(), field);
  EXPECT_EQ(std::string(field, 16), "0002c9030010a2b3");
  const std::string plain = "0002:c903:0010:a2b4\n";
  nmb_hca_info_parse_guid(plain.data(), plain.size(), field);
  EXPECT_EQ(std::string(field, 16), "0002c9030010a2b4");

  // A fake class directory: two adapters, the second with one port.
  TempDir dir;
  auto write = [&](const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(dir.file(path)).parent_path());
    std::ofstream(dir.file(path)) << text;
  };
  for (const char* name : {"mlx5_0", "mlx5_1"}) {
    std::string base = std::string(name) + "/";
    write(base + "node_guid", "0002:c903:0010:a2b0\n");
    write(base + "sys_image_guid", "0002:c903:0010:a2b1\n");
    write(base + "ports/1/gids/0", gid);
  }
  write("mlx5_0/ports/2/gids/0", "fe80:0000:0000:0000:0002:c903:0010:a2b9\n");
  nmb_hca_info_t table[NMB_HCA_TABLE_CAPACITY] = {};
  start();
  nmb_hca_info_fill(table, NMB_HCA_TABLE_CAPACITY, dir.path().c_str());
  const std::string log = logged();
  EXPECT_NE(log.find("HCA info: failed to read file " + dir.file("mlx5_1/ports/2/gids/0")),
            std::string::npos)
      << log;
  ASSERT_EQ(nmb_hca_info_count(table, NMB_HCA_TABLE_CAPACITY), 2u);
  std::string text;
  const uint64_t ts = 5;
  ASSERT_EQ(nmb_hca_info_to_json(&ts, table, NMB_HCA_TABLE_CAPACITY, text), 1);
  EXPECT_EQ(text, R"({"timestamp":5,"mlx5_0.node_guid":"0002c9030010a2b0",)"
                  R"("mlx5_0.system_image_guid":"0002c9030010a2b1","mlx5_0.port_1_guid":)"
                  R"("0002c9030010a2b3","mlx5_0.port_2_guid":"0002c9030010a2b9",)"
                  R"("mlx5_1.node_guid":"0002c9030010a2b0","mlx5_1.system_image_guid":)"
                  R"("0002c9030010a2b1","mlx5_1.port_1_guid":"0002c9030010a2b3"})");

  uint8_t empty_digest[16], digest[16];
  nmb_hca_info_t none[NMB_HCA_TABLE_CAPACITY] = {};
  ASSERT_TRUE(nmb_hca_info_digest(none, NMB_HCA_TABLE_CAPACITY, empty_digest));
  EXPECT_EQ(empty_digest[0], 0xd4);  // MD5 of no bytes: d41d8cd9...
  EXPECT_EQ(empty_digest[15], 0x7e);
  ASSERT_TRUE(nmb_hca_info_digest(table, 1, digest));
  EXPECT_NE(std::memcmp(digest, empty_digest, 16), 0);
  ASSERT_EQ(nmb_hca_info_to_json(nullptr, none, NMB_HCA_TABLE_CAPACITY, text), 1);
  EXPECT_EQ(text, "{}");
}

// ---- the writer --------------------------------------------------------------

class Writer : public nmb::test::LoggedTest {
 protected:
  void SetUp() override {
    LoggedTest::SetUp();
    nmb_set_log_level(NMB_LOG_WARNING);
    setenv("TZ", "UTC", 1);
    tzset();
    config.output_dir = dir.path();
    config.path_template = "{{source}}/{{id}}.bin";
  }

  // A page of `data` from source "s", tag "t".
  static nmb::DataPage page(const ByteVec& data, uint64_t first, uint64_t last,
                            uint32_t block_size = 0, uint8_t minor = 7) {
    nmb::DataPage p;
    p.reset(NMB_DATA_PAGE_HEADER_SIZE + data.size());
    std::copy(data.begin(), data.end(), p.data() + NMB_DATA_PAGE_HEADER_SIZE);
    p.set_version(1, minor);
    p.set_filled(NMB_DATA_PAGE_HEADER_SIZE + data.size());
    p.set_block_size(block_size);
    p.set_times(first, last);
    p.set_source("s", 1, "t", 1);
    return p;
  }
  static ByteVec events(size_t size) { return Bytes().text("NMBE").zeros(size - 4).vec(); }

  std::vector<std::string> files() const {
    std::vector<std::string> out;
    for (const auto& e : std::filesystem::recursive_directory_iterator(dir.path()))
      if (e.is_regular_file()) out.push_back(e.path().lexically_relative(dir.path()).string());
    std::sort(out.begin(), out.end());
    return out;
  }
  ByteVec header(const std::string& relative) const {
    std::ifstream in(dir.file(relative), std::ios::binary);
    ByteVec h(NMB_FILE_HEADER_SIZE);
    in.read(reinterpret_cast<char*>(h.data()), static_cast<std::streamsize>(h.size()));
    return h;
  }

  TempDir dir;
  nmb::DataWriterConfig config;
};

TEST_F(Writer, ChunksHeaderAndItsRewrite) {
  nmb::DataWriter writer(config);
  nmb::DataPage one_byte = page(events(4096), 100, 150, 4096);
  one_byte.set_filled(NMB_DATA_PAGE_HEADER_SIZE + 1);
  writer.save_page(one_byte, nullptr);
  writer.save_page(page(events(4000), 120, 180, 4096), nullptr);
  ASSERT_EQ(files(), std::vector<std::string>{"s/100.bin"});
  EXPECT_EQ(std::filesystem::file_size(dir.file("s/100.bin")), 256u + 2 * 4096);
  ByteVec h = header("s/100.bin");
  EXPECT_TRUE(nmb_check_file_header(h.data()));
  EXPECT_EQ(nmb_header_file_size(h.data()), 256u + 2 * 4096);
  EXPECT_EQ(nmb_header_first_timestamp(h.data()), 100u);
  EXPECT_EQ(nmb_header_last_timestamp(h.data()), 180u);
  EXPECT_EQ(nmb_header_block_size(h.data()), 4096u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(h.data() + NMB_FH_SOURCE_TAG)), "t");
}

TEST_F(Writer, RotationByTimeSpanSizeAndOrder) {
  config.time_span_limit = 1000;
  config.file_size_limit = 256 + 2 * 64 + 1;
  nmb::DataWriter writer(config);
  start();
  writer.save_page(page(events(64), 100, 200), nullptr);    // new file 100
  writer.save_page(page(events(64), 100, 300), nullptr);    // the same first timestamp: kept
  writer.save_page(page(events(64), 200, 500), nullptr);    // within the span: kept
  writer.save_page(page(events(64), 300, 1200), nullptr);   // full: new file 300
  writer.save_page(page(events(64), 400, 1400), nullptr);   // beyond the span: new file 400
  writer.save_page(page(events(64), 500, 300), nullptr);    // ends before it began: new file
  writer.save_page(page(events(64), 0, 0, 0, 6), nullptr);  // refused version
  writer.save_page(page({}, 700, 700), nullptr);            // empty
  EXPECT_EQ(files(),
            (std::vector<std::string>{"s/100.bin", "s/300.bin", "s/400.bin", "s/500.bin"}));
  EXPECT_EQ(std::filesystem::file_size(dir.file("s/100.bin")), 256u + 3 * 64);
  const std::string nmbe =
      "[warning] [data_writer] First data block is NMBE. No schema ids could be extracted.\n";
  EXPECT_EQ(logged(), nmbe + nmbe + nmbe + nmbe + nmbe + nmbe +
                          "[warning] first_timestamp 400is greater than current timestamp: 300\n"
                          "[warning] [data_writer] Received incompatible data page. Skipping.\n");
}

TEST_F(Writer, SchemasBlockStartsANewFileWithItsIds) {
  config.path_template = "{{source}}/{{id}}_{{timestamp}}.bin";
  nmb::DataWriter writer(config);
  uint8_t ids[7][16] = {};
  for (int i = 0; i < 7; ++i) ids[i][0] = static_cast<uint8_t>(i + 1);
  writer.set_initial_schema_ids(ids[6], &ids[0][0]);
  ByteVec schemas = Bytes().text("NMBS").u16(256).u16(7).zeros(8).raw(&ids[0][0], 112).vec();
  schemas.resize(256);
  writer.save_page(page(schemas, 100, 100), nullptr);  // the same ids: one file
  schemas[16 + 4 * 16] = 0x55;                         // the fifth id changes
  writer.save_page(page(schemas, 101, 101), nullptr);
  ASSERT_EQ(files(), (std::vector<std::string>{"s/100_100.bin", "s/101_101.bin"}));
  ByteVec h = header("s/101_101.bin");
  EXPECT_EQ(h[NMB_FH_EVENT_SCHEMA_IDS + 4 * 16], 0x55);
  EXPECT_EQ(h[NMB_FH_EVENT_SCHEMA_IDS + 3 * 16], 4);
  EXPECT_EQ(h[NMB_FH_COUNTERS_SCHEMA_ID], 7);
}

TEST_F(Writer, UnrecognisedFirstBlockIsLeftToTheCallerNotWritten) {
  nmb::DataWriter writer(config);
  start();
  EXPECT_FALSE(writer.save_page(page(Bytes().text("NMBB").zeros(2000).vec(), 100, 100), nullptr));
  EXPECT_EQ(logged(),
            "[warning] [data_writer] Unrecognized type of data page. Cannot save to file.\n"
            "[warning] [data_writer] type: 3 \n");
  EXPECT_TRUE(files().empty());

  // A page shorter than a block magic whose filled offset lies past its
  // buffer: the offset is cut to the buffer, also for the content class.
  nmb::DataPage short_page = page(Bytes().text("NMB").vec(), 100, 150, 64);
  short_page.set_filled(uint64_t{1} << 40);
  start();
  EXPECT_FALSE(writer.save_page(short_page, nullptr));
  EXPECT_NE(logged().find("Unrecognized type of data page"), std::string::npos);
  EXPECT_TRUE(files().empty());
}

TEST_F(Writer, DataSizeLimitRemovesTheOldestFiles) {
  config.data_size_limit = 3 * 64;
  config.file_size_limit = 64;
  nmb::DataWriter writer(config);
  for (uint64_t t = 1; t <= 5; ++t) writer.save_page(page(events(64), t * 100, t * 100), nullptr);
  // Each page starts a file; once the data written passes the limit, the
  // oldest files go until one more file would fit.
  EXPECT_EQ(files(), (std::vector<std::string>{"s/300.bin", "s/400.bin", "s/500.bin"}));
}

}  // namespace
