// The term language of counter set and field set files: splitting a term
// string, its limits, the anchors and the first-occurrence rule, case folding
// and the debug trace.
#include "filter/terms.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/log_capture.h"

namespace {

using nmb::test::LoggedTest;
using Terms = std::vector<std::string>;

TEST(FilterTermSplit, SignsDecideTheKindOfTheTextAfterThem) {
  nmb_filter_terms_t terms = nmb_filter_split_terms("port+rcv-err");
  EXPECT_EQ(terms.inclusive, (Terms{"port", "rcv"}));
  EXPECT_EQ(terms.exclusive, (Terms{"err"}));

  terms = nmb_filter_split_terms("-temp");
  EXPECT_EQ(terms.inclusive, Terms{});
  EXPECT_EQ(terms.exclusive, Terms{"temp"});

  terms = nmb_filter_split_terms("a+-b-+c");
  EXPECT_EQ(terms.inclusive, (Terms{"a", "c"}));
  EXPECT_EQ(terms.exclusive, Terms{"b"});
}

TEST(FilterTermSplit, EmptyPiecesAreSkippedAndBlanksKept) {
  EXPECT_EQ(nmb_filter_split_terms("+").inclusive, Terms{});
  EXPECT_EQ(nmb_filter_split_terms("-").exclusive, Terms{});
  EXPECT_EQ(nmb_filter_split_terms("a + b").inclusive, (Terms{"a ", " b"}));
  EXPECT_EQ(nmb_filter_split_terms("++a--").inclusive, Terms{"a"});
}

class FilterTermLimits : public LoggedTest {};

TEST_F(FilterTermLimits, A33rdTermOfOneKindEndsTheSplit) {
  std::string text = "-x";
  for (int i = 0; i < 33; ++i) text += "+t" + std::to_string(i);
  text += "-late";
  const nmb_filter_terms_t terms = nmb_filter_split_terms(text);
  ASSERT_EQ(terms.inclusive.size(), 32u);
  EXPECT_EQ(terms.inclusive.back(), "t31");
  EXPECT_EQ(terms.exclusive, Terms{"x"}) << "the rest of the string is ignored";
  start();
  EXPECT_TRUE(
      nmb_filter_apply_terms("t0 t1 t2 t3 t4 t5 t6 t7 t8 t9 t10 t11 t12 t13 t14 t15 t16 "
                             "t17 t18 t19 t20 t21 t22 t23 t24 t25 t26 t27 t28 t29 t30 t31",
                             terms));
  EXPECT_EQ(logged(), "[error] Cannot handle more than 32 tokens\n");
}

TEST_F(FilterTermLimits, A128ByteTermEndsTheSplitAnd127BytesFit) {
  const std::string fits(127, 'a');
  EXPECT_EQ(nmb_filter_split_terms(fits + "-b").exclusive, Terms{"b"});
  const nmb_filter_terms_t terms = nmb_filter_split_terms("x-" + std::string(128, 'a') + "+y");
  EXPECT_EQ(terms.inclusive, Terms{"x"});
  EXPECT_EQ(terms.exclusive, Terms{});
  start();
  nmb_filter_log_split_limit(terms);
  EXPECT_EQ(logged(), "[error] Token of size 128 is too long to keep in the tokens array\n");
}

TEST(FilterTermFound, StartAnchor) {
  EXPECT_TRUE(nmb_filter_term_found("^port", "PortXmit"));
  EXPECT_FALSE(nmb_filter_term_found("^port", "xport"));
  EXPECT_TRUE(nmb_filter_term_found("^^port", "port"));
}

TEST(FilterTermFound, EndAnchorAndTheFirstOccurrenceRule) {
  EXPECT_TRUE(nmb_filter_term_found("data$", "rcv_data"));
  EXPECT_FALSE(nmb_filter_term_found("data$", "data_rcv"));
  EXPECT_FALSE(nmb_filter_term_found("ab$", "abxab"));
  EXPECT_FALSE(nmb_filter_term_found("^ab", "xabab"));
  EXPECT_TRUE(nmb_filter_term_found("ab$$", "xab"));
  EXPECT_TRUE(nmb_filter_term_found("^ab$", "AB"));
}

TEST(FilterTermFound, EmptyBodies) {
  for (const char* term : {"^", "$", "^^", "$$"}) {
    EXPECT_TRUE(nmb_filter_term_found(term, "x")) << term;
    EXPECT_TRUE(nmb_filter_term_found(term, "")) << term;
  }
  EXPECT_TRUE(nmb_filter_term_found("^$", ""));
  EXPECT_FALSE(nmb_filter_term_found("^$", "x"));
  EXPECT_FALSE(nmb_filter_term_found("a", ""));
}

TEST(FilterTermFound, OnlyDollarsMayFollowTheBody) {
  EXPECT_FALSE(nmb_filter_term_found("a^", "a"));
  EXPECT_FALSE(nmb_filter_term_found("a$b", "ab"));
  EXPECT_FALSE(nmb_filter_term_found("a$b", "a$b"));
  EXPECT_FALSE(nmb_filter_term_found("$^", ""));
}

TEST(FilterTermFound, OnlyAsciiLettersFoldCase) {
  EXPECT_TRUE(nmb_filter_term_found("RCV_Data", "port_rcv_data"));
  EXPECT_FALSE(nmb_filter_term_found("\xc3\x89", "\xc3\xa9"));
  EXPECT_FALSE(nmb_filter_term_found("[", "{")) << "no folding outside A-Z";
}

TEST(FilterHaveMatch, ExclusiveTermsVetoAndInclusiveTermsAreAnded) {
  const nmb_filter_terms_t terms = nmb_filter_split_terms("port+rcv-err");
  EXPECT_TRUE(nmb_filter_have_match("PORT_RCV_DATA", &terms));
  EXPECT_FALSE(nmb_filter_have_match("port_xmit", &terms));
  EXPECT_FALSE(nmb_filter_have_match("port_rcv_errors", &terms));
  const nmb_filter_terms_t no_temp = nmb_filter_split_terms("-temp");
  EXPECT_TRUE(nmb_filter_have_match("fan", &no_temp));
  EXPECT_FALSE(nmb_filter_have_match("cpu_temp", &no_temp));
  EXPECT_FALSE(nmb_filter_have_match(nullptr, &terms));
  EXPECT_FALSE(nmb_filter_have_match("port", nullptr));
}

class FilterTrace : public LoggedTest {};

TEST_F(FilterTrace, EachTestIsTracedAtDebugLevelUntilTheAnswerIsKnown) {
  nmb_init_stderr_logger(NMB_LOG_DEBUG);
  const nmb_filter_terms_t terms = nmb_filter_split_terms("a+b-x-y");
  start();
  EXPECT_TRUE(nmb_filter_have_match("ab", &terms));
  EXPECT_FALSE(nmb_filter_have_match("xb", &terms));
  EXPECT_EQ(logged(),
            "[debug] [nmb_filter_have_match] exclusive token 'x' was not found in 'ab'\n"
            "[debug] [nmb_filter_have_match] exclusive token 'y' was not found in 'ab'\n"
            "[debug] [nmb_filter_have_match] inclusive token 'a' was found in 'ab'\n"
            "[debug] [nmb_filter_have_match] inclusive token 'b' was found in 'ab'\n"
            "[debug] [nmb_filter_have_match] exclusive token 'x' was found in 'xb'\n");
}

}  // namespace
