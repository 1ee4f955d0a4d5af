#include "filter/terms.h"

#include <cstring>

#include "utils/log.h"

namespace {

// Adds one term of the given kind; false (the limit recorded) when the term
// cannot be kept, which ends the splitting.
bool add_term(nmb_filter_terms_t& terms, std::string_view term, bool inclusive) {
  std::vector<std::string>& list = inclusive ? terms.inclusive : terms.exclusive;
  if (list.size() >= NMB_FILTER_MAX_TERMS) {
    terms.limit = NMB_FILTER_SPLIT_TOO_MANY;
    return false;
  }
  if (term.size() >= NMB_FILTER_TERM_SIZE) {
    terms.limit = NMB_FILTER_SPLIT_TOO_LONG;
    terms.too_long_size = term.size();
    return false;
  }
  list.emplace_back(term);
  return true;
}

char fold(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Position of the first occurrence of `body` in `name`, ignoring ASCII case.
// Bodies are shorter than a term slot, so the plain search stays linear in
// the name.
size_t find_folded(std::string_view name, std::string_view body) {
  if (body.size() > name.size()) return std::string_view::npos;
  for (size_t at = 0; at + body.size() <= name.size(); ++at) {
    size_t i = 0;
    while (i < body.size() && fold(name[at + i]) == fold(body[i])) ++i;
    if (i == body.size()) return at;
  }
  return std::string_view::npos;
}

void trace(const char* kind, const std::string& term, bool found, const char* name) {
  NMB_LOG(NMB_LOG_DEBUG, "[nmb_filter_have_match] %s token '%s' %s found in '%s'", kind,
          term.c_str(), found ? "was" : "was not", name);
}

}  // namespace

nmb_filter_terms_t nmb_filter_split_terms(std::string_view text) {
  nmb_filter_terms_t terms;
  bool inclusive = true;
  size_t start = 0;
  for (size_t i = 0; i <= text.size(); ++i) {
    const bool sign = i < text.size() && (text[i] == '+' || text[i] == '-');
    if (i < text.size() && !sign) continue;
    if (i > start && !add_term(terms, text.substr(start, i - start), inclusive)) break;
    // The sign just passed decides the kind of the next term.
    if (sign) inclusive = text[i] == '+';
    start = i + 1;
  }
  return terms;
}

void nmb_filter_log_split_limit(const nmb_filter_terms_t& terms) {
  if (terms.limit == NMB_FILTER_SPLIT_TOO_MANY) {
    NMB_LOG(NMB_LOG_ERROR, "Cannot handle more than %d tokens",
            static_cast<int>(NMB_FILTER_MAX_TERMS));
  } else if (terms.limit == NMB_FILTER_SPLIT_TOO_LONG) {
    NMB_LOG(NMB_LOG_ERROR, "Token of size %zu is too long to keep in the tokens array",
            terms.too_long_size);
  }
}

bool nmb_filter_term_found(std::string_view term, std::string_view name) {
  size_t body_start = 0;
  while (body_start < term.size() && term[body_start] == '^') ++body_start;
  const bool anchored_start = body_start > 0;
  size_t body_end = term.find_first_of("^$", body_start);
  if (body_end == std::string_view::npos) body_end = term.size();
  size_t end = body_end;
  while (end < term.size() && term[end] == '$') ++end;
  const bool anchored_end = end > body_end;
  // Only "$" may follow the body: a later "^" or text after a "$" can never
  // be satisfied.
  if (end != term.size()) return false;

  const std::string_view body = term.substr(body_start, body_end - body_start);
  if (body.empty()) return !(anchored_start && anchored_end) || name.empty();
  // Only the first occurrence counts, also for the end anchor: "ab$" is not
  // found in "abxab".
  const size_t at = find_folded(name, body);
  if (at == std::string_view::npos) return false;
  if (anchored_start && at != 0) return false;
  if (anchored_end && at + body.size() != name.size()) return false;
  return true;
}

bool nmb_filter_have_match(const char* name, const nmb_filter_terms_t* terms) {
  if (name == nullptr || terms == nullptr) return false;
  const std::string_view text(name, std::strlen(name));
  for (const std::string& term : terms->exclusive) {
    const bool found = nmb_filter_term_found(term, text);
    trace("exclusive", term, found, name);
    if (found) return false;
  }
  for (const std::string& term : terms->inclusive) {
    const bool found = nmb_filter_term_found(term, text);
    trace("inclusive", term, found, name);
    if (!found) return false;
  }
  return true;
}

bool nmb_filter_apply_terms(const char* name, const nmb_filter_terms_t& terms) {
  nmb_filter_log_split_limit(terms);
  return nmb_filter_have_match(name, &terms);
}
