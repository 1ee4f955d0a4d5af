// A format added the way docs/ARCHITECTURE.md says: a sink derived from
// RecordSink whose hooks only write. Everything around them (the time
// bounds, the -i/-e selection, the records-written count, a failed record
// failing the file) comes from the record sink's walk.
#include "export/record_sink.h"

#include <gtest/gtest.h>

#include <string>

#include "app/options.h"
#include "app/run.h"
#include "data/format.h"
#include "data/reader.h"
#include "tests/support/data_builder.h"
#include "tests/support/log_capture.h"
#include "tests/support/metrics_builder.h"
#include "utils/output.h"

namespace {

using namespace nmb::test;

// One line per record: its kind and what identifies it.
class TallySink : public nmb::RecordSink {
 public:
  TallySink(const nmb::ExportSettings& settings, nmb::OutputBuffer& out, int fail_at = -1)
      : RecordSink(settings, out, false), fail_at_(fail_at) {}

 protected:
  bool write_counters(nmb::ByteView block) override {
    return put("counters " + std::to_string(block.u64(NMB_COUNTERS_BLOCK_TIMESTAMP)));
  }
  bool write_event(const nmb_event_plan_t& plan, nmb::ByteView record,
                   const nmb_header_timestamp_t& ts) override {
    return put("event " + plan.members.at(0).name + "=" + std::to_string(record.u64(0)) + " at " +
               std::to_string(ts.value));
  }
  bool write_metrics(const nmb::metrics::MetricsTables& /*tables*/) override {
    return put("metrics");
  }

 private:
  bool put(const std::string& line) {
    if (written_++ == fail_at_) return false;
    output().text() += line + "\n";
    return true;
  }
  int fail_at_;
  int written_ = 0;
};

class AddedFormat : public LoggedTest {
 protected:
  // Counters blocks at 100, 200 and 300; at 150 two records of "keep" and
  // one of "drop"; a metrics block.
  std::string write_file() {
    CounterGroup group("g");
    group.counter("c");
    const std::string schemas = dir_.file("schema");
    const SchemaId counters = write_schema_file(schemas, CountersSchema().group(group));
    EventSchema events;
    events.type(EventType("keep").field("k", "uint64_t", 8));
    events.type(EventType("drop").field("d", "uint64_t", 8));
    const SchemaId event_schema = write_schema_file(schemas, events);
    MetricsPayload metrics;
    metrics.label_names({"host"}).label_values({"a"}).metric_names({"rx"});
    DataFile file;
    file.block_size(512).counters_schema(counters).event_schema(0, event_schema);
    for (uint64_t t : {100, 200, 300}) file.chunk(Chunk().counters(t, Bytes().u64(t).vec()));
    file.chunk(Chunk()
                   .events(150, 0, 0, 2, Bytes().u64(1).u64(2).vec())
                   .events(150, 0, 1, 1, Bytes().u64(3).vec()));
    file.chunk(Chunk().raw(metrics.batch(Batch(400).sample(0, 5)).bytes()));
    return file.write(dir_.file("data.bin"));
  }

  // The sink's output over the file; `ok` and the records written too.
  std::string run(int fail_at, bool& ok, uint32_t& records) {
    nmb_read_options_t options;
    options.schema_path = dir_.file("schema");
    nmb_string_array_append(options.include, "keep");
    nmb::ExportSettings settings = nmb_export_settings_from(options);
    settings.timestamp_gt = 150;
    settings.timestamp_lt = 250;
    nmb::OutputBuffer out(-1);
    TallySink sink(settings, out, fail_at);
    sink.begin_run();
    ok = nmb_process_file(path_.c_str(), nmb_reader_settings_from(options), sink, true);
    sink.end_run(true);
    records = sink.output().records_written();
    std::string text;
    text.swap(out.text());  // nothing left to flush to the buffer's closed descriptor
    return text;
  }

  TempDir dir_;
  std::string path_ = write_file();
};

TEST_F(AddedFormat, HooksSeeWhatTheWalkKeepsAndTheWalkCounts) {
  bool ok = false;
  uint32_t records = 0;
  start();
  EXPECT_EQ(run(-1, ok, records), "counters 200\nevent k=1 at 150\nevent k=2 at 150\nmetrics\n");
  EXPECT_EQ(logged(), "");
  EXPECT_TRUE(ok);
  // Counters and metrics blocks count whether written or not; records of
  // types left out by -i/-e do not.
  EXPECT_EQ(records, 3u + 2u + 1u);

  // A record the format cannot write fails the file where it stands.
  start();
  EXPECT_EQ(run(2, ok, records), "counters 200\nevent k=1 at 150\n");
  EXPECT_EQ(logged(),
            "[error] Failed to print\n"
            "[error] Failed to process block of type 1 at offset 0\n"
            "Failed processing file " +
                path_ + ": Failed to process data file " + path_ + "\n");
  EXPECT_FALSE(ok);
  EXPECT_EQ(records, 3u + 1u);
}

}  // namespace
