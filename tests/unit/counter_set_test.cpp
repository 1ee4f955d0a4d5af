// Counter set files: meta field lines, reading (comments, trimming, section
// lines), token lines with captions, the provider's answers and the counter
// set built over a counters schema.
#include "filter/counter_set.h"

#include <gtest/gtest.h>

#include <string>

#include "filter/provider_counter_set.h"
#include "filter/set_file.h"
#include "tests/support/data_builder.h"
#include "tests/support/log_capture.h"

namespace {

using nmb::test::LoggedTest;
using namespace std::string_view_literals;

class MetaFieldLine : public LoggedTest {
 protected:
  bool check(const std::string& line, std::string_view prefix) {
    key_.clear();
    value_.clear();
    return nmb_set_file_parser_check_custom_meta_field(line, prefix, key_, value_, &valid_);
  }
  std::string key_;
  std::string value_;
  bool valid_ = false;
};

TEST_F(MetaFieldLine, KeyAndValueAreNotTrimmed) {
  EXPECT_TRUE(check("meta_field_add: host = a", NMB_META_FIELD_ADD_PREFIX));
  EXPECT_TRUE(valid_);
  EXPECT_EQ(key_, " host ");
  EXPECT_EQ(value_, " a");
}

TEST_F(MetaFieldLine, MissingOrEarlyEqualSignFallsThrough) {
  start();
  EXPECT_FALSE(check("meta_field_alias:foo", NMB_META_FIELD_ALIAS_PREFIX));
  EXPECT_FALSE(check("meta_field_add:=x", NMB_META_FIELD_ADD_PREFIX));
  EXPECT_EQ(logged(),
            "[error] [nmb_set_file_parser_check_custom_meta_field] meta field line should include "
            "'=' character\n"
            "[error] [nmb_set_file_parser_check_custom_meta_field] invalid format: '=' before key "
            "end\n");
}

TEST_F(MetaFieldLine, EmptyValueIsARecognisedButInvalidLine) {
  nmb_init_stderr_logger(NMB_LOG_WARNING);
  start();
  EXPECT_TRUE(check("meta_field_add:k=", NMB_META_FIELD_ADD_PREFIX));
  EXPECT_FALSE(valid_);
  EXPECT_EQ(logged(),
            "[warning] [nmb_set_file_parser_check_custom_meta_field] error parsing line "
            "'meta_field_add:k='\n");
}

TEST_F(MetaFieldLine, KeyAndValueAreCutTo255Bytes) {
  EXPECT_TRUE(check("meta_field_add:" + std::string(300, 'k') + "=" + std::string(300, 'v'),
                    NMB_META_FIELD_ADD_PREFIX));
  EXPECT_EQ(key_, std::string(255, 'k'));
  EXPECT_EQ(value_, std::string(255, 'v'));
}

TEST_F(MetaFieldLine, DebugTrace) {
  nmb_init_stderr_logger(NMB_LOG_DEBUG);
  start();
  check("meta_field_alias:a=b", NMB_META_FIELD_ALIAS_PREFIX);
  EXPECT_EQ(logged(),
            "[debug] [nmb_set_file_parser_check_custom_meta_field] ---------------------\n"
            "[debug] [nmb_set_file_parser_check_custom_meta_field] original line = "
            "'meta_field_alias:a=b'\n"
            "[debug] [nmb_set_file_parser_check_custom_meta_field] prefix        = "
            "'meta_field_alias:'\n"
            "[debug] [nmb_set_file_parser_check_custom_meta_field] prefix size   = 17\n"
            "[debug] [nmb_set_file_parser_check_custom_meta_field] pos_equal     = 18\n"
            "[debug] [nmb_set_file_parser_check_custom_meta_field] key           = 'a'\n"
            "[debug] [nmb_set_file_parser_check_custom_meta_field] val           = 'b'\n"
            "[debug] [nmb_set_file_parser_check_custom_meta_field] ---------------------\n");
}

class CounterSetFile : public LoggedTest {
 protected:
  std::unique_ptr<nmb_provider_counter_set_t> load(std::string_view text) {
    return nmb_provider_counter_set_create_from_text("c.cset", text);
  }
  static int include(const nmb_provider_counter_set_t& set, const char* name) {
    return nmb_provider_counter_set_should_include_counter(&set, name);
  }
};

TEST_F(CounterSetFile, CommentsBlanksAndSectionLinesAreNotTokens) {
  auto set = load("# only comments\n\n  [counters]\n[x] port\n \t \n");
  ASSERT_NE(set, nullptr);
  EXPECT_TRUE(set->tokens.empty());
  EXPECT_EQ(include(*set, "anything"), 1);
}

TEST_F(CounterSetFile, TokensAreCutAtHashTrimmedAndKeptInFileOrder) {
  auto set = load("port#comment\n  rcv\t\r\n\0ignored\nx\0after nul\nlast"sv);
  ASSERT_NE(set, nullptr);
  EXPECT_EQ(set->tokens, (nmb_string_array_t{"port", "rcv", "x", "last"}));
}

TEST_F(CounterSetFile, TokenListIsLoggedAtInfoLevel) {
  nmb_init_stderr_logger(NMB_LOG_INFO);
  start();
  load("a\nb=c\n");
  EXPECT_EQ(logged(),
            "[info] Tokens from file 'c.cset':\n"
            "[info] c.cset[0] = a\n"
            "[info] c.cset[1] = b=c\n");
}

TEST_F(CounterSetFile, MetaFieldLinesBecomeMetaFields) {
  auto set = load(
      "meta_field_alias:port_rcv=rx\n"
      "meta_field_alias:timestamp=time\n"
      "meta_field_add:site=lab1\n"
      "meta_field_add:k=\n");
  ASSERT_NE(set, nullptr);
  EXPECT_TRUE(set->tokens.empty());
  const auto& fields = set->counter_set.meta_fields;
  ASSERT_EQ(fields.size(), 3u);
  EXPECT_EQ(fields[0].kind, NMB_META_FIELD_COUNTER_ALIAS);
  EXPECT_EQ(fields[0].name, "rx");
  EXPECT_EQ(fields[0].counter_name, "port_rcv");
  EXPECT_EQ(fields[0].hidden, 1);
  EXPECT_EQ(fields[1].kind, NMB_META_FIELD_BUILTIN_ALIAS);
  EXPECT_EQ(fields[1].builtin_field, NMB_BUILTIN_FIELD_TIMESTAMP);
  EXPECT_EQ(fields[2].kind, NMB_META_FIELD_CONSTANT);
  EXPECT_EQ(fields[2].name, "site");
  EXPECT_EQ(fields[2].value, "lab1");
}

TEST_F(CounterSetFile, BrokenMetaFieldLineIsUsedAsAToken) {
  start();
  auto set = load("meta_field_alias:foo\n");
  EXPECT_EQ(logged(),
            "[error] [nmb_set_file_parser_check_custom_meta_field] meta field line should include "
            "'=' character\n");
  ASSERT_NE(set, nullptr);
  EXPECT_EQ(set->tokens, nmb_string_array_t{"meta_field_alias:foo"});
  EXPECT_TRUE(set->counter_set.meta_fields.empty());
}

TEST_F(CounterSetFile, AliasLineHoldingTheAddPrefixIsReadForBoth) {
  auto set = load("meta_field_alias:k=v meta_field_add:\n");
  ASSERT_NE(set, nullptr);
  ASSERT_EQ(set->counter_set.meta_fields.size(), 2u);
  EXPECT_EQ(set->counter_set.meta_fields[1].kind, NMB_META_FIELD_CONSTANT);
  EXPECT_EQ(set->counter_set.meta_fields[1].name, "s:k") << "key counted from the add prefix";
  EXPECT_TRUE(set->tokens.empty());
}

TEST(CounterSetToken, CaptionSplitting) {
  nmb_cset_token_t token = nmb_cset_token_parse("rx=port_rcv+data");
  EXPECT_TRUE(token.parsed);
  EXPECT_EQ(token.caption, "rx");
  EXPECT_EQ(token.terms.inclusive, (std::vector<std::string>{"port_rcv", "data"}));
  token = nmb_cset_token_parse("==x==");
  EXPECT_TRUE(token.parsed);
  EXPECT_FALSE(token.caption.has_value());
  EXPECT_EQ(token.terms.inclusive, std::vector<std::string>{"x"});
  EXPECT_FALSE(nmb_cset_token_parse("a=b=c").parsed);
  EXPECT_FALSE(nmb_cset_token_parse("=").parsed);
}

TEST_F(CounterSetFile, UnparsableLineIsReportedForEveryCounterTested) {
  auto set = load("a=b=c\nport\n=\n");
  ASSERT_NE(set, nullptr);
  start();
  EXPECT_EQ(include(*set, "port_rcv"), 1);
  EXPECT_EQ(include(*set, "other"), 0);
  EXPECT_EQ(logged(),
            "[error] Unable to parse counterset token a=b=c\n"
            "[error] Unable to parse counterset token =\n"
            "[error] Unable to parse counterset token a=b=c\n"
            "[error] Unable to parse counterset token =\n");
}

TEST_F(CounterSetFile, ProviderMessages) {
  start();
  EXPECT_EQ(nmb_provider_counter_set_create(nullptr), nullptr);
  EXPECT_EQ(nmb_provider_counter_set_should_include_counter(nullptr, "a"), 0);
  auto set = load("");
  EXPECT_EQ(nmb_provider_counter_set_should_include_counter(set.get(), nullptr), 0);
  EXPECT_EQ(nmb_provider_counter_set_create("/nonexistent/c.cset"), nullptr);
  EXPECT_EQ(logged(),
            "[error] [nmb_provider_counter_set_create] missing cset_filename parameter\n"
            "[error] [nmb_provider_counter_set_should_include_counter] missing counter_set "
            "parameter\n"
            "[error] [nmb_provider_counter_set_should_include_counter] missing counter_name "
            "parameter\n"
            "[error] Cannot open counterset file '/nonexistent/c.cset'\n"
            "[error] [nmb_provider_counter_set_create] failed to read cset file "
            "'/nonexistent/c.cset'\n");
}

class CounterSetOverSchema : public LoggedTest {
 protected:
  void SetUp() override {
    LoggedTest::SetUp();
    nmb_counter_group_t group;
    group.num_counter_sets = 1;
    for (const char* name : {"port_rcv", "port_xmit", "temp", "rx"}) {
      nmb_counter_info_t counter;
      counter.name = name;
      counter.data_type = NMB_COUNTER_DATA_TYPE_UINT64;
      group.counters.push_back(counter);
    }
    schema_.groups.push_back(group);
  }
  std::string write(std::string_view text) {
    std::string path = dir_.file("c.cset");
    nmb::test::write_text_file(path, text);
    return path;
  }
  nmb_counters_schema_t schema_;
  nmb::test::TempDir dir_;
};

TEST_F(CounterSetOverSchema, FirstMatchingLineGivesTheCaption) {
  auto set = nmb_counter_set_create(schema_, write("rx=port_rcv\nport\nxmit=xmit\n").c_str());
  ASSERT_NE(set, nullptr);
  EXPECT_EQ(set->skip, (std::vector<uint8_t>{0, 0, 1, 1}));
  EXPECT_EQ(set->filtered_size, 2u);
  EXPECT_EQ(set->elements[0].caption, "rx");
  EXPECT_FALSE(set->elements[1].caption.has_value()) << "the line without caption came first";
}

TEST_F(CounterSetOverSchema, WithoutAFileEveryCounterIsKept) {
  nmb_init_stderr_logger(NMB_LOG_INFO);
  start();
  auto set = nmb_counter_set_create(schema_, "/nonexistent/c.cset");
  EXPECT_EQ(logged(),
            "[error] Cannot open counterset file '/nonexistent/c.cset'\n"
            "[info] Cannot open '/nonexistent/c.cset', will export whole counter set.\n");
  ASSERT_NE(set, nullptr);
  EXPECT_EQ(set->filtered_size, 4u);
  EXPECT_EQ(nmb_counter_set_create(schema_, nullptr)->name, "default");
}

TEST_F(CounterSetOverSchema, MetaFieldsAreResolvedAgainstTheCounters) {
  nmb_init_stderr_logger(NMB_LOG_WARNING);
  const std::string path = write(
      "port\n"
      "meta_field_alias:temp=heat\n"      // counter found: shown
      "meta_field_alias:missing=gone\n"   // counter absent: hidden, silently
      "meta_field_alias:temp=port_rcv\n"  // name of a kept counter: hidden
      "meta_field_add:rx=1\n"             // rx exists but is not kept: shown
      "meta_field_alias:source=type\n");  // a built-in name: hidden
  start();
  auto set = nmb_counter_set_create(schema_, path.c_str());
  EXPECT_EQ(logged(),
            "[warning] [counter_set] meta_field 'port_rcv' will not be shown during export. A "
            "counter with the same name already exists!\n"
            "[warning] [counter_set] meta_field 'type' will not be shown during export. A counter "
            "with the same name already exists!\n");
  ASSERT_NE(set, nullptr);
  std::vector<uint8_t> hidden;
  for (const auto& field : set->meta_fields) hidden.push_back(field.hidden);
  EXPECT_EQ(hidden, (std::vector<uint8_t>{0, 1, 1, 0, 1}));
  EXPECT_EQ(set->filtered_meta_count, 2u);
  EXPECT_EQ(set->meta_fields[0].counter.name, "temp");
}

TEST_F(CounterSetOverSchema, DebugDump) {
  auto set = nmb_counter_set_create(schema_, write("cap=xmit\n").c_str());
  ASSERT_NE(set, nullptr);
  set->elements.resize(2);
  nmb_init_stderr_logger(NMB_LOG_DEBUG);
  start();
  nmb_counter_set_print(*set);
  EXPECT_EQ(logged(),
            "[debug] [PRINT COUNTER SET]\n"
            "[debug] name: " +
                dir_.file("c.cset") +
                "\n"
                "[debug] filtered_size = 1\n"
                "[debug]     elem: 0\n"
                "[debug]       name         = port_rcv\n"
                "[debug]       skip         = 1\n"
                "[debug]       name_len     = 8\n"
                "[debug]       offset       = 0\n"
                "[debug]       field_type   = UINT64\n"
                "[debug]     elem: 1\n"
                "[debug]       name         = port_xmit\n"
                "[debug]       caption      = cap\n"
                "[debug]       skip         = 0\n"
                "[debug]       name_len     = 9\n"
                "[debug]       offset       = 0\n"
                "[debug]       field_type   = UINT64\n");
}

}  // namespace
