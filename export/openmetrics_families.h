// The metric families of one OpenMetrics run: every family is declared once
// under a name no other family takes, and announced (# TYPE, # HELP) right
// before its first sample, so a family's header is written once whatever the
// number and the order of the files.
// Stage: plan.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace nmb::openmetrics {

enum class FamilyType : uint8_t { kGauge, kCounter, kInfo, kUnknown };

struct Family {
  std::string name;         // the family's name in # TYPE and # HELP
  std::string sample_name;  // with the type's suffix: _total, _info
  FamilyType type = FamilyType::kGauge;
  std::string help;  // escaped; empty when there is none
  bool announced = false;
};

class Families {
 public:
  // The family of `type` named after `name` (a valid metric name). A counter
  // or info name loses a trailing "_total" or "_info" (its samples get it
  // back). A name taken by a family of another type, or by another family's
  // samples, gets "_2", "_3", ... appended. The first declaration's help
  // stays (`help` is the unescaped text; one that is not valid UTF-8 is
  // left out).
  Family& declare(std::string_view name, FamilyType type, std::string_view help);

  // Appends the family's # TYPE and # HELP lines the first time.
  static void announce(std::string& out, Family& family) {
    if (!family.announced) write_header(out, family);
  }

 private:
  static void write_header(std::string& out, Family& family);

  // Family names and sample names, each to the family that uses it.
  std::unordered_map<std::string, Family*> taken_;
  std::unordered_map<std::string, std::unique_ptr<Family>> families_;
};

// The labels of one series as text, each ",<name>=\"<value>\"" (the sink
// turns the first ',' into '{'). Names are made valid; a name already in the
// set gets '_' appended until it is free, so the labels given first (ours)
// keep theirs. An empty value is left out, as Prometheus reads it.
class LabelText {
 public:
  // False when the value is not valid UTF-8: the series cannot be written.
  bool add(std::string_view name, std::string_view value);
  // The name `name` gets in this set (taken from now on).
  std::string take_name(std::string_view name);

  std::string text;
  bool writable = true;

 private:
  std::vector<std::string> names_;
};

}  // namespace nmb::openmetrics
