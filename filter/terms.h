// The term language of counter set and field set files: a term string such
// as "port+rcv-err" is cut into inclusive and exclusive terms, and a name
// matches when it holds every inclusive term and no exclusive one. Terms are
// found ASCII case-insensitively, by their first occurrence, with "^" and "$"
// anchoring them at the start and end of the name.
// Stage: model.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// At most this many terms of each kind, each shorter than the term size.
inline constexpr size_t NMB_FILTER_MAX_TERMS = 32;
inline constexpr size_t NMB_FILTER_TERM_SIZE = 128;

// What ended the splitting of a term string early.
enum nmb_filter_split_limit_t : int {
  NMB_FILTER_SPLIT_COMPLETE = 0,
  NMB_FILTER_SPLIT_TOO_MANY = 1,  // a 33rd term of one kind
  NMB_FILTER_SPLIT_TOO_LONG = 2,  // a term of NMB_FILTER_TERM_SIZE bytes or more
};

// A term string split once. Filter files apply the same string to many
// names; the split is kept, and its limit message is logged again each time
// it is applied, as splitting the string afresh would.
struct nmb_filter_terms_t {
  std::vector<std::string> inclusive;
  std::vector<std::string> exclusive;
  int limit = NMB_FILTER_SPLIT_COMPLETE;
  size_t too_long_size = 0;  // the length of the term that was too long
};

// Cuts `text` at every "+" and "-". Logs nothing: the limit is recorded.
nmb_filter_terms_t nmb_filter_split_terms(std::string_view text);

// Logs the limit message of a split that ended early (nothing otherwise).
void nmb_filter_log_split_limit(const nmb_filter_terms_t& terms);

// True when no exclusive term and every inclusive term is found in `name`.
// A null name or null terms never match. Each test is traced at debug level.
bool nmb_filter_have_match(const char* name, const nmb_filter_terms_t* terms);

// Logs the split's limit message, then matches: what splitting the term
// string afresh and matching it does.
bool nmb_filter_apply_terms(const char* name, const nmb_filter_terms_t& terms);

// True when one term (with its anchors) is found in `name`.
bool nmb_filter_term_found(std::string_view term, std::string_view name);
