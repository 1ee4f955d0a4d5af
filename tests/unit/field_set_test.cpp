// Field set files: the reading order (";" cut, trim, "#" cut), sections and
// prefix sections, the "default" tokens, captions, field selection with order
// numbers, and the provider's answers and messages.
#include "filter/field_set.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "filter/provider_field_set.h"
#include "tests/support/log_capture.h"

namespace {

using nmb::test::LoggedTest;

class FieldSetTest : public LoggedTest {
 protected:
  void load(std::string_view text) {
    provider_ = nmb_provider_field_set_create_from_text("f.fset", text);
    ASSERT_NE(provider_, nullptr);
  }
  const nmb::FieldSet& set() const { return provider_->set; }
  bool interest(const char* type) const {
    return nmb_provider_field_set_is_type_of_interest(provider_.get(), type) == 1;
  }
  bool keeps(const char* type, const char* field) const {
    uint8_t included = 2;
    EXPECT_EQ(nmb_provider_field_set_should_include_field(provider_.get(), type, field, &included),
              1);
    return included == 1;
  }
  std::vector<std::string> tokens(const char* type) const {
    std::vector<std::string> texts;
    for (const nmb::FieldSetToken* token : set().ownTokens(type)) texts.push_back(token->text);
    return texts;
  }

  std::unique_ptr<nmb_provider_field_set_t> provider_;
};

TEST_F(FieldSetTest, SemicolonCutThenTrimThenHashCut) {
  nmb_init_stderr_logger(NMB_LOG_DEBUG);
  start();
  load("port_rcv # note\nport_xmit ; note\n  ; whole line\n   # comment\n\tlast");
  EXPECT_EQ(logged(),
            "[debug] fset file f.fset\n"
            "[debug] port_rcv \n"
            "[debug] port_xmit\n"
            "[debug] last\n"
            "[debug] -----------------------\n"
            "[debug] tokens_by_type_:\n"
            "[debug] \ttype = default:\n"
            "[debug] \t\tport_rcv \n"
            "[debug] \t\tport_xmit\n"
            "[debug] \t\tlast\n"
            "[debug] meta_fields_aliases_by_type_:\n"
            "[debug] meta_fields_constants_by_type_:\n");
  EXPECT_FALSE(keeps("t", "port_rcv")) << "the blank before '#' is part of the term";
  EXPECT_TRUE(keeps("t", "port_xmit"));
}

TEST_F(FieldSetTest, OnlyCommentsKeepEverything) {
  load("# nothing\n;\n\n");
  EXPECT_TRUE(interest("any"));
  EXPECT_TRUE(keeps("any", "field"));
}

TEST_F(FieldSetTest, SectionsNameTypesAndPrefixes) {
  load("[a,b]\nx\n[net*]\ny\n");
  EXPECT_TRUE(keeps("a", "x1"));
  EXPECT_TRUE(keeps("b", "x1"));
  EXPECT_FALSE(keeps("b", "y1"));
  EXPECT_TRUE(keeps("netdev", "y1"));
  EXPECT_FALSE(keeps("netdev", "x1"));
  EXPECT_FALSE(interest("other")) << "no lines before the first section";
  EXPECT_FALSE(interest("ne"));
}

TEST_F(FieldSetTest, LinesBeforeTheFirstSectionApplyToEveryType) {
  load("z\n[a]\nx\n");
  EXPECT_TRUE(interest("other"));
  EXPECT_TRUE(keeps("other", "z"));
  EXPECT_FALSE(keeps("other", "x"));
  EXPECT_TRUE(keeps("a", "z")) << "a section's type is also tested with the default tokens";
  EXPECT_TRUE(keeps("a", "x"));
}

TEST_F(FieldSetTest, MetaLineBeforeTheFirstSectionAlsoMakesDefaultEntry) {
  load("meta_field_add:site=lab\n[a]\nx\n");
  EXPECT_TRUE(interest("other"));
  EXPECT_TRUE(keeps("other", "anything")) << "no default tokens: every field";
}

TEST_F(FieldSetTest, SectionNamesAreTakenAsTheyStandBetweenCommas) {
  load("[ a , b ]\nx\n");
  EXPECT_EQ(tokens("a "), std::vector<std::string>{"x"});
  EXPECT_EQ(tokens(" b"), std::vector<std::string>{"x"});
  EXPECT_FALSE(interest("a"));
}

TEST_F(FieldSetTest, TypeNamedTwiceInOneHeaderTakesItsLinesOnce) {
  load("[a,a]\nx\n[a]\ny\n");
  EXPECT_EQ(tokens("a"), (std::vector<std::string>{"x", "y"}));
}

TEST_F(FieldSetTest, CaptionPatternLinesGiveATokenAndAnAlias) {
  nmb_init_stderr_logger(NMB_LOG_DEBUG);
  start();
  load("rx=^port_rcv$\nq=a=b\n");
  const std::string log = logged();
  EXPECT_NE(log.find("[debug] meta_fields_aliases_by_type_:\n"
                     "[debug] \ttype = default:\n"
                     "[debug] \t\t key : a=b -> val : q\n"
                     "[debug] \t\t key : port_rcv -> val : rx\n"),
            std::string::npos)
      << log;
  EXPECT_EQ(tokens("default"), (std::vector<std::string>{"^port_rcv$", "a=b"}));
  nmb_init_stderr_logger(NMB_LOG_ERROR);
  EXPECT_TRUE(keeps("t", "PORT_RCV"));
  EXPECT_FALSE(keeps("t", "port_rcv_x"));
}

TEST_F(FieldSetTest, TermLimitMessagesComeWhenTokensAreApplied) {
  start();
  load(std::string(200, 'a') + "\n");
  EXPECT_EQ(logged(), "");
  start();
  EXPECT_TRUE(keeps("t", "f"));
  EXPECT_EQ(logged(), "[error] Token of size 200 is too long to keep in the tokens array\n");
}

TEST_F(FieldSetTest, ProviderMessages) {
  load("x\n");
  uint8_t included = 0;
  std::string name;
  start();
  EXPECT_EQ(nmb_provider_field_set_create_from_file(nullptr), nullptr);
  EXPECT_EQ(nmb_provider_field_set_is_type_of_interest(nullptr, "t"), 1);
  EXPECT_EQ(nmb_provider_field_set_is_type_of_interest(provider_.get(), nullptr), 1);
  EXPECT_EQ(nmb_provider_field_set_should_include_field(provider_.get(), "t", "f", nullptr), 0);
  EXPECT_EQ(nmb_provider_field_set_should_include_field(provider_.get(), "t", nullptr, &included),
            0);
  EXPECT_EQ(nmb_provider_field_set_get_name(nullptr, &name), 0);
  EXPECT_EQ(
      nmb_provider_field_set_should_include_field(provider_.get(), "uint64_t", "x", &included), 0);
  EXPECT_EQ(nmb_provider_field_set_create_from_file("/nonexistent/f.fset"), nullptr);
  EXPECT_EQ(logged(),
            "[error] [nmb_provider_field_set_create_from_file] missing fset_filename parameter\n"
            "[error] [nmb_provider_field_set_is_type_of_interest] missing field_set parameter\n"
            "[error] [nmb_provider_field_set_is_type_of_interest] missing type_name parameter\n"
            "[error] [nmb_provider_field_set_should_include_field] missing included out-parameter\n"
            "[error] [nmb_provider_field_set_should_include_field] missing parameter\n"
            "[error] [nmb_provider_field_set_get_name] missing field_set parameter\n"
            "[error] Schema 'draft' already contains type 'uint64_t'\n"
            "[error] [nmb_provider_field_set_should_include_field] failed to add draft type "
            "'uint64_t'\n"
            "[error] [nmb_provider_field_set_create_from_file] failed to initialize FieldSet from "
            "'/nonexistent/f.fset'\n");
  EXPECT_EQ(nmb_provider_field_set_get_name(provider_.get(), &name), 1);
  EXPECT_EQ(name, "f.fset");
}

TEST_F(FieldSetTest, PrintConfiguration) {
  load("a\n[x,y]\nb\nc\n[z]\n");
  nmb_init_stderr_logger(NMB_LOG_INFO);
  start();
  nmb_provider_field_set_print_configuration(provider_.get());
  EXPECT_EQ(logged(),
            "[info] [nmb_provider_field_set_print_configuration] 'f.fset' configuration:\n"
            "[info] [nmb_provider_field_set_print_configuration]   Sections: 3\n"
            "[info] [nmb_provider_field_set_print_configuration]   [default]\n"
            "[info] [nmb_provider_field_set_print_configuration]     a\n"
            "[info] [nmb_provider_field_set_print_configuration]   [x]\n"
            "[info] [nmb_provider_field_set_print_configuration]     b\n"
            "[info] [nmb_provider_field_set_print_configuration]     c\n"
            "[info] [nmb_provider_field_set_print_configuration]   [y]\n"
            "[info] [nmb_provider_field_set_print_configuration]     b\n"
            "[info] [nmb_provider_field_set_print_configuration]     c\n");
}

// A type system with one schema "s" of the given types, each a list of
// uint64_t fields.
std::unique_ptr<nmb_type_system_t> types_of(
    const std::vector<std::pair<std::string, std::vector<std::string>>>& types) {
  auto ts = nmb_type_system_create();
  nmb_schema_t* schema = nmb_type_system_add_schema(*ts, "s", 0, nullptr);
  for (const auto& [name, fields] : types) {
    std::vector<nmb_field_info_t> infos;
    for (const std::string& field : fields) {
      infos.push_back({field.c_str(), "", "uint64_t", NMB_COUNTING_MODE_ABSOLUTE, 1});
    }
    EXPECT_EQ(nmb_schema_add_type(*schema, name.c_str(), infos.data(), infos.size(), nullptr),
              NMB_SCHEMA_OK);
  }
  return ts;
}

struct Selected {
  std::vector<uint8_t> skip;
  std::vector<uint32_t> order;
  bool operator==(const Selected&) const = default;
};

Selected selected(const std::vector<nmb::FieldRecord>* records) {
  Selected out;
  if (records == nullptr) return out;
  for (const nmb::FieldRecord& record : *records) {
    out.skip.push_back(record.skip);
    out.order.push_back(record.order);
  }
  return out;
}

TEST(FieldSelection, KeptFieldsAreNumberedInFieldOrder) {
  auto ts = types_of({{"port", {"a_x", "b", "a_y", "c"}}, {"other", {"a_1", "z"}}});
  nmb::FieldSet set("f");
  set.loadText("[port]\na_\nc\n");
  set.updateWithNewSchema(*ts, 0);
  EXPECT_EQ(selected(set.getFields(0, 0)), (Selected{{0, 1, 0, 0}, {1, 0, 2, 3}}));
  EXPECT_EQ(selected(set.getFields(0, 1)), Selected{}) << "not of interest: no field";
  EXPECT_EQ(set.getFields(0, 2), nullptr);
}

TEST(FieldSelection, NoTokensKeepEveryField) {
  auto ts = types_of({{"port", {"a", "b"}}});
  nmb::FieldSet set("f");
  set.loadText("[port]\nmeta_field_add:k=v\n");
  set.updateWithNewSchemas(*ts, {0});
  EXPECT_EQ(selected(set.getFields(0, 0)), (Selected{{0, 0}, {1, 2}}));
}

TEST(FieldSelection, VendorTypesSkipEmptyStrings) {
  auto plain = types_of({{"port", {"a"}}});
  auto vendor = types_of({{std::string(NMB_FSET_SKIP_EMPTY_STRINGS_PREFIX) + "port", {"a"}}});
  nmb::FieldSet set("f");
  set.updateWithNewSchema(*plain, 0);
  EXPECT_FALSE(set.skipEmptyStrings());
  set.updateWithNewSchema(*vendor, 0);
  EXPECT_FALSE(set.skipEmptyStrings()) << "a schema name already seen is not read again";
  nmb::FieldSet fresh("f");
  fresh.updateWithNewSchema(*vendor, 0);
  EXPECT_TRUE(fresh.skipEmptyStrings());
}

class FieldSelectionTrace : public LoggedTest {};

TEST_F(FieldSelectionTrace, EveryTypeButPowerIsTraced) {
  auto ts = types_of({{"power", {"a"}}, {"fan", {"a"}}});
  nmb::FieldSet set("f");
  set.loadText("[fan]\na\n");
  nmb_init_stderr_logger(NMB_LOG_DEBUG);
  start();
  set.updateWithNewSchema(*ts, 0);
  EXPECT_EQ(logged(),
            "[debug] [updateWithNewSchemas] updating fset with 1 new schemas\n"
            "[debug] [updateWithNewSchemas] new_schm_id = 0, adding schema = s\n"
            "[debug] [updateWithNewSchemas] need to add schema 's'\n"
            "[debug] types for td=s\n"
            "[debug] s contains power\n"
            "[debug] s contains fan\n"
            "[debug] type [fan] is type of interest\n"
            "[debug] [nmb_filter_have_match] inclusive token 'a' was found in 'a'\n");
}

}  // namespace
