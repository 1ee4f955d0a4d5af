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
  bool announced = false;
};

// A description as # HELP text: escaped; empty when it is not valid UTF-8.
std::string help_text(std::string_view description);

class Families {
 public:
  // The family of `type` named after `name` (a valid metric name). A counter
  // or info name loses a trailing "_total" or "_info" (its samples get it
  // back). A name taken by a family of another type, or by another family's
  // samples, gets "_2", "_3", ... appended.
  Family& declare(std::string_view name, FamilyType type);

  // Appends the family's # TYPE line and, when `help` (escaped, see
  // help_text) is not empty, its # HELP line, the first time: the help is
  // that of the series whose sample comes first, which a slice of the run
  // (--shard) that holds that sample gives too.
  static void announce(std::string& out, Family& family, std::string_view help = {}) {
    if (!family.announced) write_header(out, family, help);
  }

 private:
  static void write_header(std::string& out, Family& family, std::string_view help);

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
