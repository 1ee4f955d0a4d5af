#include "export/value_format.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "tests/support/log_capture.h"
#include "utils/log.h"

namespace {

TEST(ValueFormat, GuidWholeWordTest) {
  for (const char* name : {"node_guid", "port_1_guid", "GUID", "system_image_guid", "guid2", "Guid",
                           "x.guid", "guid_guid", "abc_guid_x", "myguid_guid"}) {
    EXPECT_TRUE(nmb_is_guid_field_name(name)) << name;
  }
  for (const char* name : {"myguid", "guidance", "gguid", "gui", "", "guidguid", "g_uid", "gu1d"}) {
    EXPECT_FALSE(nmb_is_guid_field_name(name)) << name;
  }
  EXPECT_FALSE(nmb_is_guid_field_name(nullptr));
}

TEST(ValueFormat, HasGuidSubstringTest) {
  EXPECT_TRUE(nmb_name_has_guid("myguid"));
  EXPECT_TRUE(nmb_name_has_guid("PORTGUID"));
  EXPECT_TRUE(nmb_name_has_guid("gguid"));
  EXPECT_FALSE(nmb_name_has_guid("Guid"));
  EXPECT_FALSE(nmb_name_has_guid("port"));
}

TEST(ValueFormat, GuidSwitchFollowsEnvironment) {
  unsetenv("NMB_CONVERT_GUID_TO_HEX_STRING");
  unsetenv("CONVERT_GUID_TO_HEX_STRING");
  EXPECT_TRUE(nmb_read_guid_conversion_switch());
  setenv("CONVERT_GUID_TO_HEX_STRING", "", 1);
  EXPECT_TRUE(nmb_read_guid_conversion_switch());
  setenv("CONVERT_GUID_TO_HEX_STRING", "0", 1);
  EXPECT_FALSE(nmb_read_guid_conversion_switch());
  setenv("CONVERT_GUID_TO_HEX_STRING", "Yes", 1);
  EXPECT_TRUE(nmb_read_guid_conversion_switch());
  setenv("NMB_CONVERT_GUID_TO_HEX_STRING", "false", 1);
  nmb::test::capture_stderr();
  EXPECT_FALSE(nmb_read_guid_conversion_switch()) << "the prefixed value wins";
  nmb::test::captured_stderr();
  unsetenv("NMB_CONVERT_GUID_TO_HEX_STRING");
  unsetenv("CONVERT_GUID_TO_HEX_STRING");
}

TEST(ValueFormat, SixtyFourBitFormats) {
  EXPECT_EQ(nmb_format_guid_hex(0x1234abcdULL), "0x000000001234abcd");
  EXPECT_EQ(nmb_format_uint64_string(UINT64_MAX, 0), "18446744073709551615");
  EXPECT_EQ(nmb_format_uint64_string(255, 2), "0x00000000000000ff");
  EXPECT_EQ(nmb_format_uint64_string(5, 4), "0b" + std::string(61, '0') + "101");
  EXPECT_EQ(nmb_format_int64_string(-5, 1), "-5");
  EXPECT_EQ(nmb_format_int64_string(-1, 2), "0xffffffffffffffff");
  EXPECT_EQ(nmb_format_int64_string(INT64_MIN, 0), "-9223372036854775808");

  nmb_set_log_level(NMB_LOG_WARNING);
  nmb::test::capture_stderr();
  EXPECT_EQ(nmb_format_uint64_string(7, 3), "7");
  EXPECT_EQ(nmb_format_int64_string(-7, 3), "-7");
  std::string log = nmb::test::captured_stderr();
  EXPECT_NE(log.find("UUID format is only supported for 128-bit types, using DECIMAL for uint64"),
            std::string::npos);
  EXPECT_NE(log.find("using DECIMAL for int64"), std::string::npos);
}

TEST(ValueFormat, Fp64Formats) {
  EXPECT_EQ(nmb_format_fp64_string(0, 1.5), "1.500000");
  EXPECT_EQ(nmb_format_fp64_string(2, 1.0), "0x3ff0000000000000");
  EXPECT_EQ(nmb_format_fp64_string(4, -0.0), "0b1" + std::string(63, '0'));
  EXPECT_EQ(nmb_format_fp64_string(1, 1e300).size(), 31u) << "32-byte buffer";
  nmb_set_log_level(NMB_LOG_WARNING);
  nmb::test::capture_stderr();
  EXPECT_EQ(nmb_format_fp64_string(3, 2.0), "2.000000");
  EXPECT_NE(nmb::test::captured_stderr().find(
                "UUID format is not supported for FP64 types, using DECIMAL"),
            std::string::npos);
}

TEST(ValueFormat, OneHundredTwentyEightBitFormats) {
  uint8_t bytes[16];
  for (int i = 0; i < 16; ++i) bytes[i] = static_cast<uint8_t>(i * 17);
  EXPECT_EQ(nmb_format_uint128_string(bytes, 3), "00112233-4455-6677-8899-aabbccddeeff");
  EXPECT_EQ(nmb_format_uint128_string(bytes, 2), "0x00112233445566778899aabbccddeeff");
  std::string binary = nmb_format_int128_string(bytes, 4);
  EXPECT_EQ(binary.size(), 130u);
  EXPECT_EQ(binary.substr(0, 18), "0b0000000000010001");
  nmb_set_log_level(NMB_LOG_WARNING);
  nmb::test::capture_stderr();
  EXPECT_EQ(nmb_format_int128_string(bytes, 1), "00112233445566778899aabbccddeeff");
  EXPECT_NE(nmb::test::captured_stderr().find(
                "Decimal format not fully supported for 128-bit types, using hex representation"),
            std::string::npos);
  EXPECT_EQ(nmb_format_uint128_string(nullptr, 2), "");
}

TEST(ValueFormat, TimestampsInLocalTimeTruncated) {
  // Expected text built from the same local time conversion.
  time_t seconds = 1700000000;
  struct tm tm;
  ASSERT_NE(localtime_r(&seconds, &tm), nullptr);
  char prefix[32];
  std::strftime(prefix, sizeof prefix, "%Y-%m-%d %H:%M:%S", &tm);
  uint64_t t = 1700000000ULL * 1000000 + 987654;
  EXPECT_EQ(nmb_format_timestamp(t, false), std::string(prefix) + ".987");
  EXPECT_EQ(nmb_format_timestamp(t, true), std::string(prefix) + ".987654");

  seconds = 1;
  ASSERT_NE(localtime_r(&seconds, &tm), nullptr);
  std::strftime(prefix, sizeof prefix, "%Y-%m-%d %H:%M:%S", &tm);
  EXPECT_EQ(nmb_format_timestamp(1500000, false), std::string(prefix) + ".500");
  EXPECT_EQ(nmb_format_timestamp(1500000, true), std::string(prefix) + ".500000");
  EXPECT_EQ(nmb_format_timestamp(UINT64_MAX, false).substr(0, 5), "58652") << "year 586524";
  char small[8];
  EXPECT_EQ(nmb_format_timestamp_into(0, false, small, sizeof small), 0u);
}

}  // namespace
