// The Influx output of built files, written into a real InfluxDB 1.x: every
// write is accepted and every record is one point with its tags and values.
// The server runs on 127.0.0.1 from a temporary folder, with every other
// listener off or on loopback, and is stopped by the test (also when it fails
// or dies: the server gets SIGKILL when the test process ends).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>

#include "tests/support/data_builder.h"
#include "tests/support/run_binary.h"

namespace {

using namespace nmb::test;
using nlohmann::json;

// A port on 127.0.0.1 that was free a moment ago.
int free_loopback_port() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof addr;
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length) == 0)
    port = ntohs(addr.sin_port);
  close(fd);
  return port;
}

struct Reply {
  int status = 0;
  std::string body;
};

class InfluxServer {
 public:
  explicit InfluxServer(const TempDir& dir) : dir_(dir), curl_(find_program("curl")) {}
  ~InfluxServer() { stop(); }

  // Starts influxd and waits for /ping; a few tries, since a port picked as
  // free may be taken before the server binds it. The error, if any, in error().
  bool start() {
    const std::string influxd = find_program("influxd");
    if (influxd.empty() || curl_.empty()) {
      error_ = "influxd or curl not found (scripts/setup.sh installs them)";
      return false;
    }
    for (int attempt = 0; attempt < 3; ++attempt) {
      http_port_ = free_loopback_port();
      write_config(free_loopback_port());
      pid_ = fork();
      if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        std::string log = dir_.file("influxd.log");
        if (freopen(log.c_str(), "w", stdout) == nullptr || dup2(fileno(stdout), 2) < 0) _exit(126);
        execl(influxd.c_str(), "influxd", "-config", dir_.file("influxdb.conf").c_str(), nullptr);
        _exit(127);
      }
      // Up to 10 s for the first answer.
      for (int wait = 0; wait < 100; ++wait) {
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
          pid_ = -1;
          break;
        }
        if (request({"http://127.0.0.1:" + std::to_string(http_port_) + "/ping"}).status == 204)
          return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
      }
      stop();
    }
    std::ifstream log(dir_.file("influxd.log"));
    error_ = "influxd did not start: " + std::string(std::istreambuf_iterator<char>(log), {});
    return false;
  }

  void stop() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    for (int wait = 0; wait < 50; ++wait) {
      if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
        pid_ = -1;
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

  const std::string& error() const { return error_; }

  Reply query(const std::string& q) {
    return request(
        {"-G", "--data-urlencode", "db=nmb", "--data-urlencode", "q=" + q, url("query")});
  }
  Reply create_database() {
    return request({"--data-urlencode", "q=CREATE DATABASE nmb", url("query")});
  }
  Reply write(const std::string& lines) {
    std::string body = dir_.file("body.txt");
    std::ofstream(body, std::ios::binary) << lines;
    return request({"--data-binary", "@" + body, url("write?db=nmb&precision=ns")});
  }

 private:
  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(http_port_) + "/" + path;
  }

  Reply request(std::vector<std::string> args) {
    std::string body = dir_.file("reply.txt");
    std::remove(body.c_str());
    args.insert(args.begin(), {"-s", "--max-time", "10", "-o", body, "-w", "%{http_code}"});
    RunResult run = run_binary(curl_, args);
    Reply reply;
    reply.status = run.status == 0 ? std::atoi(run.out.c_str()) : 0;
    std::ifstream in(body, std::ios::binary);
    reply.body.assign(std::istreambuf_iterator<char>(in), {});
    return reply;
  }

  // Data, meta and WAL in the temporary folder; HTTP and the backup service
  // on loopback; everything that would listen elsewhere, report or run in
  // the background off.
  void write_config(int rpc_port) {
    std::ofstream(dir_.file("influxdb.conf"))
        << "reporting-disabled = true\n"
        << "bind-address = \"127.0.0.1:" << rpc_port << "\"\n"
        << "[meta]\n  dir = \"" << dir_.file("meta") << "\"\n"
        << "[data]\n  dir = \"" << dir_.file("data") << "\"\n  wal-dir = \"" << dir_.file("wal")
        << "\"\n  query-log-enabled = false\n"
        << "[http]\n  bind-address = \"127.0.0.1:" << http_port_ << "\"\n"
        << "  log-enabled = false\n  pprof-enabled = false\n  unix-socket-enabled = false\n"
        << "[monitor]\n  store-enabled = false\n"
        << "[subscriber]\n  enabled = false\n"
        << "[continuous_queries]\n  enabled = false\n"
        << "[retention]\n  enabled = false\n"
        << "[shard-precreation]\n  enabled = false\n"
        << "[ifql]\n  enabled = false\n"
        << "[logging]\n  level = \"warn\"\n  suppress-logo = true\n";
  }

  const TempDir& dir_;
  std::string curl_;
  pid_t pid_ = -1;
  int http_port_ = 0;
  std::string error_;
};

constexpr uint64_t kT0 = 1700000000000000;  // microseconds
constexpr uint64_t kSecond = 1000000;

// Types of every kind the mapping has a rule for.
EventSchema schema() {
  EventType lane("lane");
  lane.field("snr", "float", 4).field("up", "bool", 1);
  EventType port("port_sample");
  port.field("port", "uint8_t", 1)
      .index(1)
      .field("node_guid", "uint64_t", 8)
      .index(2)
      .field("name", "char", 1, 16)
      .field("time", "timestamp", 8)
      .field("rx_bytes", "uint64_t", 8)
      .field("utilisation", "double", 8)
      .field("lanes", "lane", 5, 2);
  EventType cpu("cpu_sample");
  cpu.field("cpu", "uint16_t", 2).field("load", "float", 4).field("flags", "uint8_t", 1, 2);
  EventType board("board");
  board.field("model", "char", 1, 12).field("fw_major", "uint16_t", 2);
  EventType hca("hca_info");
  hca.field("node_guid", "uint64_t", 8).field("board", "board", 14).field("ports", "uint8_t", 1);
  EventType mem("mem_info");
  mem.field("free_kb", "uint64_t", 8).field("huge", "lane", 5);
  EventType note("note");
  note.field("text", "char", 1, 8);
  return EventSchema().type(lane).type(port).type(cpu).type(board).type(hca).type(mem).type(note);
}

ByteVec port_record(uint8_t port, uint64_t rx, double utilisation) {
  Bytes r;
  r.u8(port).u64(0x248a0703005d0000 + port).fixed("mlx5 " + std::to_string(port) + ",a=b\\c", 16);
  r.u64(kT0 + port).u64(rx).f64(utilisation).f32(0.5f * port).u8(1).f32(-1).u8(0);
  return std::move(r).vec();
}

// Port samples (three ports a block, one with the largest unsigned value and
// one with NaN), CPU samples that nothing tells apart (in two blocks of one
// time), an adapter, the memory and a record that leaves no field.
DataFile data_file(const std::string& source, const SchemaId& id) {
  DataFile file;
  file.block_size(4096).source(source, "events").times(kT0, kT0 + kSecond).event_schema(0, id);
  for (uint64_t s = 0; s < 2; ++s) {
    const uint64_t t = kT0 + s * kSecond;
    Bytes ports;
    ports.raw(port_record(1, 1000 * (s + 1), 0.25));
    ports.raw(port_record(2, std::numeric_limits<uint64_t>::max(), std::nan("")));
    ports.raw(port_record(3, 3, 1e300));
    Bytes cpus;
    for (int i = 0; i < 3; ++i) cpus.u16(0).f32(0.5f).u8(1).u8(0);  // all alike
    Bytes board;
    board.u64(0x248a0703005d0000).fixed("MT\"x\\y", 12).u16(20).u8(2);
    file.chunk(Chunk()
                   .events(t, 0, 1, 3, ports.vec())
                   .events(t, 0, 2, 3, cpus.vec())
                   .events(t, 0, 2, 3, cpus.vec())
                   .events(t, 0, 4, 1, board.vec())
                   .events(t, 0, 5, 1, Bytes().u64(1 << 20).f32(64).u8(1).vec())
                   .events(t, 0, 6, 1, Bytes().fixed("only", 8).vec()));
  }
  return file;
}

json rows(InfluxServer& server, const std::string& q) {
  Reply reply = server.query(q);
  EXPECT_EQ(reply.status, 200) << q << ": " << reply.body;
  json doc = json::parse(reply.body, nullptr, false);
  const json& series = doc["results"][0]["series"];
  return series.is_array() && !series.empty() ? series[0] : json::object();
}

// The value of a column in the single row of a query.
json value(const json& series, const std::string& column) {
  EXPECT_EQ(series["values"].size(), 1u) << series.dump();
  const json& columns = series["columns"];
  for (size_t i = 0; i < columns.size(); ++i) {
    if (columns[i] == column) return series["values"][0][i];
  }
  ADD_FAILURE() << "no column " << column << " in " << series.dump();
  return nullptr;
}

TEST(InfluxDb, EveryRecordIsOnePointWithItsTagsAndValues) {
  TempDir dir;
  InfluxServer server(dir);
  ASSERT_TRUE(server.start()) << server.error();
  ASSERT_EQ(server.create_database().status, 200);

  const std::string schema_dir = dir.file("schema");
  std::filesystem::create_directories(schema_dir);
  SchemaId id = write_schema_file(schema_dir, schema());
  for (const char* source : {"node01", "node 02"}) {
    std::string path = data_file(source, id).write(dir.file(std::string(source) + ".bin"));
    RunResult run = run_binary(NMB_READ_BINARY, {"-s", schema_dir, "-f", "influx", path});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(strip_log_timestamps(run.err),
              "[warning] 2 event records of " + path +
                  " were not written as Influx lines: no field value left (the first of type "
                  "note)\n");
    Reply written = server.write(run.out);
    ASSERT_EQ(written.status, 204) << written.body;
  }

  // Per file and sample: 3 ports, 6 CPU records, an adapter, the memory.
  EXPECT_EQ(value(rows(server, "SELECT COUNT(rx_bytes) FROM hca_port_counters"), "count"), 12);
  EXPECT_EQ(value(rows(server, "SELECT COUNT(utilisation) FROM hca_port_counters"), "count"), 8)
      << "NaN is left out";
  EXPECT_EQ(value(rows(server, "SELECT COUNT(load) FROM cpu_counters"), "count"), 24);
  EXPECT_EQ(value(rows(server, "SELECT COUNT(ports) FROM hca_counters"), "count"), 4);
  EXPECT_EQ(value(rows(server, "SELECT COUNT(free_kb) FROM node_counters"), "count"), 4);
  EXPECT_EQ(rows(server, "SHOW TAG VALUES FROM cpu_counters WITH KEY = seq")["values"],
            json::parse(R"([["seq","0"],["seq","1"],["seq","2"],["seq","3"],["seq","4"],
                             ["seq","5"]])"));
  EXPECT_EQ(rows(server, "SHOW TAG VALUES FROM hca_port_counters WITH KEY = source_id")["values"],
            json::parse(R"([["source_id","node 02"],["source_id","node01"]])"));

  json port2 = rows(server,
                    "SELECT * FROM hca_port_counters WHERE port = '2' AND source_id = 'node 02' "
                    "AND time = 1700000001000000000");
  EXPECT_EQ(value(port2, "node_guid"), "0x248a0703005d0002");
  EXPECT_EQ(value(port2, "name"), "mlx5 2,a=b\\c");
  EXPECT_EQ(value(port2, "event_type"), "port_sample");
  EXPECT_EQ(value(port2, "source_tag"), "events");
  EXPECT_EQ(value(port2, "seq"), "0");
  EXPECT_EQ(value(port2, "rx_bytes"), -1) << "2^64-1 as the signed value of its bits";
  EXPECT_EQ(value(port2, "time_"), kT0 + 2);
  EXPECT_EQ(value(port2, "utilisation"), nullptr);
  EXPECT_EQ(value(port2, "lanes_0.snr"), 1.0);
  EXPECT_EQ(value(port2, "lanes_1.up"), 0);
  json port3 = rows(server, "SELECT utilisation FROM hca_port_counters WHERE port = '3' LIMIT 1");
  EXPECT_EQ(value(port3, "utilisation"), 1e300);

  json hca = rows(server, "SELECT * FROM hca_counters WHERE source_id = 'node01' LIMIT 1");
  EXPECT_EQ(value(hca, "node_guid"), "0x248a0703005d0000");
  EXPECT_EQ(value(hca, "board.model"), "MT\"x\\y");
  EXPECT_EQ(value(hca, "board.fw_major"), 20);
  json mem = rows(server, "SELECT * FROM node_counters LIMIT 1");
  EXPECT_EQ(value(mem, "huge.snr"), 64.0);
  EXPECT_EQ(value(mem, "event_type"), "mem_info");
}

}  // namespace
