// Writes a small sample data set: a schema folder with one counters schema and
// one event schema, and a few data files (counters, events, packed pages of
// both encodings) that nmb_read exports.
//
//   make_sample [folder]        (default: examples)
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

#include "tests/support/data_builder.h"
#include "tests/support/metrics_builder.h"

namespace {

using namespace nmb::test;

constexpr uint64_t kStart = 1700000000000000;  // 2023-11-14 22:13:20 UTC
constexpr uint64_t kSecond = 1000000;
constexpr uint32_t kBlockSize = 1024;

// ---- counters schema of the sample (engineer C) ----
// The counters every sample counters block carries, in block order: a
// realistic node schema of several groups and a few hundred counters (node
// totals, per-CPU ticks, per-package energy, InfiniBand port counters).
// Every value size is a multiple of 8, so values stay 8-byte aligned.
constexpr uint32_t kCountersBlockSize = 4096;

CountersSchema sample_counters_schema() {
  auto add = [](CounterGroup& group, std::string name, std::string type = "UINT64",
                std::string counting = "ABSOLUTE", std::string units = "",
                std::string format = "") {
    Counter c;
    c.name = std::move(name);
    c.data_type = std::move(type);
    c.counting_type = std::move(counting);
    c.units = std::move(units);
    c.description = c.name;
    if (!format.empty()) c.string_format = std::move(format);
    if (c.data_type == "STRING") c.length = c.name == "kernel_release" ? 32 : 16;
    group.add(std::move(c));
  };
  CounterGroup node("node");
  node.provider = "node_stats";
  add(node, "uptime_seconds", "UINT64", "ABSOLUTE", "s");
  add(node, "context_switches", "UINT64", "RUNNING_SUM");
  add(node, "interrupts", "UINT64", "RUNNING_SUM");
  add(node, "processes_running");
  add(node, "load_average_1m", "FP64");
  add(node, "load_average_5m", "FP64");
  add(node, "load_average_15m", "FP64");
  add(node, "memory_total_bytes", "UINT64", "ABSOLUTE", "B");
  add(node, "memory_available_bytes", "UINT64", "ABSOLUTE", "B");
  add(node, "free_memory_delta", "INT64", "DELTA", "B");
  add(node, "swap_used_bytes", "UINT64", "ABSOLUTE", "B");
  add(node, "hostname", "STRING");
  add(node, "kernel_release", "STRING");
  add(node, "boot_id", "UINT128", "ABSOLUTE", "", "UUID");
  add(node, "system_image_guid", "UINT64", "ABSOLUTE", "", "DECIMAL");
  add(node, "node_state", "BIT64");

  CounterGroup cpu("cpu");
  cpu.granularity = "CPU";
  cpu.provider = "cpu_stats";
  for (int i = 0; i < 16; ++i) {
    std::string prefix = "cpu" + std::to_string(i) + "_";
    add(cpu, prefix + "user_ticks", "UINT64", "RUNNING_SUM", "ticks");
    add(cpu, prefix + "system_ticks", "UINT64", "RUNNING_SUM", "ticks");
    add(cpu, prefix + "idle_ticks", "UINT64", "RUNNING_SUM", "ticks");
    add(cpu, prefix + "iowait_ticks", "UINT64", "RUNNING_SUM", "ticks");
    add(cpu, prefix + "frequency_mhz", "UINT64", "ABSOLUTE", "MHz");
    add(cpu, prefix + "utilisation", "FP64", "ABSOLUTE", "%");
  }

  CounterGroup package("package");
  package.granularity = "PACKAGE";
  package.provider = "rapl";
  for (int i = 0; i < 2; ++i) {
    std::string prefix = "package" + std::to_string(i) + "_";
    add(package, prefix + "energy_uj", "UINT64", "RUNNING_SUM", "uJ");
    add(package, prefix + "dram_energy_uj", "UINT64", "RUNNING_SUM", "uJ");
    add(package, prefix + "temperature_c", "FP64", "ABSOLUTE", "C");
    add(package, prefix + "power_limit_w", "FP64", "ABSOLUTE", "W");
    add(package, prefix + "throttle_events", "UINT64", "RUNNING_SUM");
    add(package, prefix + "c6_residency", "FP64", "ABSOLUTE", "%");
  }

  CounterGroup ports("hca_ports");
  ports.provider = "infiniband";
  const char* const kPortCounters[] = {"port_xmit_data",
                                       "port_rcv_data",
                                       "port_xmit_packets",
                                       "port_rcv_packets",
                                       "port_unicast_xmit_packets",
                                       "port_unicast_rcv_packets",
                                       "port_multicast_xmit_packets",
                                       "port_multicast_rcv_packets",
                                       "symbol_error",
                                       "link_error_recovery",
                                       "link_downed",
                                       "port_rcv_errors",
                                       "port_rcv_remote_physical_errors",
                                       "port_rcv_switch_relay_errors",
                                       "port_xmit_discards",
                                       "port_xmit_constraint_errors",
                                       "port_rcv_constraint_errors",
                                       "local_link_integrity_errors",
                                       "excessive_buffer_overrun_errors",
                                       "vl15_dropped",
                                       "port_xmit_wait",
                                       "rx_write_requests",
                                       "rx_read_requests",
                                       "rx_atomic_requests",
                                       "out_of_buffer",
                                       "out_of_sequence",
                                       "duplicate_request",
                                       "rnr_nak_retry_err",
                                       "packet_seq_err",
                                       "implied_nak_seq_err",
                                       "local_ack_timeout_err",
                                       "resp_local_length_error",
                                       "roce_adp_retrans",
                                       "np_cnp_sent",
                                       "rp_cnp_handled"};
  for (int adapter = 0; adapter < 2; ++adapter) {
    for (int port = 1; port <= 2; ++port) {
      std::string prefix = "mlx5_" + std::to_string(adapter) + "_port" + std::to_string(port) + "_";
      add(ports, prefix + "port_guid", "UINT64", "ABSOLUTE", "", "DECIMAL");
      add(ports, prefix + "port_state", "BIT64");
      for (const char* name : kPortCounters) add(ports, prefix + name, "UINT64", "RUNNING_SUM");
    }
  }
  CountersSchema schema;
  schema.group(std::move(node))
      .group(std::move(cpu))
      .group(std::move(package))
      .group(std::move(ports));
  return schema;
}
// ---- end of the counters schema of the sample ----

// Size of one counter's value in a block (packed without padding).
size_t counter_value_size(const Counter& counter) {
  if (counter.data_type == "STRING") return counter.length.value_or(0);
  if (counter.data_type == "UINT128" || counter.data_type == "INT128") return 16;
  return counter.length.value_or(8);
}

// The value area of the `sample`-th counters block: every counter gets a value
// derived from its position, so any schema yields plausible data. Values stay
// small so that no 4-byte word of the area ends in 'D', which would look like
// the start of another counters block inside a packed page.
ByteVec sample_counter_values(const CountersSchema& schema, int sample) {
  Bytes values;
  int position = 0;
  for (const CounterGroup& group : schema.groups) {
    for (const Counter& counter : group.counters) {
      ++position;
      size_t size = counter_value_size(counter);
      Bytes value;
      uint64_t base = 1000u * static_cast<uint64_t>(position) + 17u * static_cast<uint64_t>(sample);
      if (counter.data_type == "FP64") {
        value.f64(0.25 * (position + sample));
      } else if (counter.data_type == "INT64") {
        value.i64(-static_cast<int64_t>(base));
      } else if (counter.data_type == "BIT64") {
        value.u64(sample % 2 ? 0x5 : 0x1);
      } else if (counter.data_type == "STRING") {
        value.fixed("node-" + std::to_string(sample), size);
      } else if (counter.data_type == "UINT128" || counter.data_type == "INT128") {
        value.u128(0x0002c90300a1b2c0u + static_cast<uint64_t>(sample), 0xfe80u);
      } else {
        value.u64(base);
      }
      ByteVec bytes = std::move(value).vec();
      bytes.resize(size);
      values.raw(bytes);
    }
  }
  return std::move(values).vec();
}

EventSchema sample_event_schema() {
  EventSchema schema;
  schema.provider_name = "sample_events";
  schema.provider_version = "1.2.0";
  schema.type(EventType("port_sample")
                  .field("time", "timestamp", 8)
                  .field("port", "uint32_t", 4)
                  .field("rx_bytes", "uint64_t", 8, 1, "RUNNING_SUM")
                  .field("tx_bytes", "uint64_t", 8, 1, "RUNNING_SUM")
                  .field("utilisation", "double", 8)
                  .field("name", "char", 1, 8));
  schema.type(EventType("cpu_sample")
                  .field("cpu", "uint16_t", 2)
                  .field("load", "float", 4)
                  .field("temperature_delta", "int32_t", 4, 1, "DELTA")
                  .field("flags", "uint8_t", 1, 2));
  return schema;
}

ByteVec port_records(int sample, int count) {
  Bytes records;
  for (int i = 0; i < count; ++i) {
    records.u64(kStart + static_cast<uint64_t>(sample) * kSecond + static_cast<uint64_t>(i))
        .u32(static_cast<uint32_t>(i + 1))
        .u64(100000u * static_cast<uint64_t>(sample + 1) + static_cast<uint64_t>(i))
        .u64(90000u * static_cast<uint64_t>(sample + 1) + static_cast<uint64_t>(i))
        .f64(0.125 * (i + 1))
        .fixed("mlx5_" + std::to_string(i), 8);
  }
  return std::move(records).vec();
}

ByteVec cpu_records(int sample, int count) {
  Bytes records;
  for (int i = 0; i < count; ++i)
    records.u16(static_cast<uint16_t>(i)).f32(0.5f * (sample + i)).i32(i - 1).u8(1).u8(0);
  return std::move(records).vec();
}

// One chunk of event blocks: a few port samples and cpu samples.
Chunk event_chunk(int sample) {
  uint64_t ts = kStart + static_cast<uint64_t>(sample) * kSecond;
  return Chunk()
      .events(ts, 0, 0, 2, port_records(sample, 2))
      .events(ts, 0, 1, 2, cpu_records(sample, 2));
}

DataFile sample_file(const std::string& tag, int samples) {
  DataFile file;
  file.block_size(kBlockSize)
      .source("node01", tag)
      .times(kStart, kStart + static_cast<uint64_t>(samples - 1) * kSecond);
  return file;
}

void make_sample(const std::string& folder) {
  std::string schema_dir = folder + "/schema";
  std::filesystem::create_directories(schema_dir);
  // Schema ids follow the schema text; drop the files of earlier versions.
  for (const auto& entry : std::filesystem::directory_iterator(schema_dir)) {
    std::string name = entry.path().filename().string();
    if (name.rfind("schema_", 0) == 0 && entry.path().extension() == ".json")
      std::filesystem::remove(entry.path());
  }
  CountersSchema counters = sample_counters_schema();
  SchemaId counters_id = write_schema_file(schema_dir, counters);
  SchemaId events_id = write_schema_file(schema_dir, sample_event_schema());

  DataFile counters_file = sample_file("counters", 3);
  counters_file.block_size(kCountersBlockSize).counters_schema(counters_id);
  for (int s = 0; s < 3; ++s)
    counters_file.chunk(Chunk().counters(kStart + static_cast<uint64_t>(s) * kSecond,
                                         sample_counter_values(counters, s)));
  counters_file.write(folder + "/counters.bin");

  DataFile events_file = sample_file("events", 2);
  events_file.event_schema(0, events_id);
  for (int s = 0; s < 2; ++s) events_file.chunk(event_chunk(s));
  events_file.write(folder + "/events.bin");

  // gzip pages holding counters blocks, each block padded to a chunk of its own.
  DataFile gzip_file = sample_file("packed_gzip", 4);
  gzip_file.block_size(kCountersBlockSize).counters_schema(counters_id);
  Chunk gzip_chunk;
  for (int page = 0; page < 2; ++page) {
    ByteVec content;
    for (int s = 2 * page; s < 2 * page + 2; ++s) {
      ByteVec block = Chunk()
                          .counters(kStart + static_cast<uint64_t>(s) * kSecond,
                                    sample_counter_values(counters, s))
                          .bytes(kCountersBlockSize);
      content.insert(content.end(), block.begin(), block.end());
    }
    gzip_chunk.page(PackedPage('G')
                        .content(content)
                        .source("node01", "packed_gzip")
                        .times(kStart + 2u * page * kSecond, kStart + (2u * page + 1) * kSecond));
  }
  gzip_file.chunk(gzip_chunk);
  gzip_file.write(folder + "/packed_gzip.bin");

  // snappy pages holding event blocks.
  DataFile snappy_file = sample_file("packed_snappy", 2);
  snappy_file.event_schema(0, events_id);
  Chunk snappy_chunk;
  for (int s = 0; s < 2; ++s) {
    uint64_t ts = kStart + static_cast<uint64_t>(s) * kSecond;
    snappy_chunk.page(PackedPage('S')
                          .content(event_chunk(s).bytes(256))
                          .source("node01", "packed_snappy")
                          .times(ts, ts));
  }
  snappy_file.chunk(snappy_chunk);
  snappy_file.write(folder + "/packed_snappy.bin");

  // metrics blocks: per adapter port, received and sent bytes, two batches a
  // block (the object shows the later one).
  DataFile metrics_file = sample_file("metrics", 3);
  for (int s = 0; s < 3; ++s) {
    const uint64_t ts = kStart + static_cast<uint64_t>(s) * kSecond;
    MetricsPayload payload;
    payload.label_names({"device", "port"})
        .label_values({"mlx5_0", "mlx5_1", "1"})
        .metric_names({"port_rcv_bytes", "port_xmit_bytes"})
        .common_labels({{"host", "node01"}});
    for (uint8_t device = 0; device < 2; ++device) {
      payload.batch(Batch(ts + device * 1000)
                        .sample(0, 1000000u * (s + 1) + device)
                        .sample(1, 750000u * (s + 1) + device)
                        .labels(LabelsBlock('M', 0).id(device).id(2)));
    }
    metrics_file.chunk(Chunk().raw(payload.bytes()));
  }
  metrics_file.write(folder + "/metrics.bin");
}

}  // namespace

int main(int argc, char** argv) {
  std::string folder = argc > 1 ? argv[1] : "examples";
  try {
    make_sample(folder);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "make_sample: %s\n", e.what());
    return 1;
  }
  std::printf("Sample data written to %s\n", folder.c_str());
  return 0;
}
