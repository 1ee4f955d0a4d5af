// Writes the seed corpora of the metrics fuzzers, built with the test
// builder: make_metrics_seeds <payload folder> <labels block folder>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/metrics_builder.h"

namespace {

using nmb::test::Batch;
using nmb::test::ByteVec;
using nmb::test::LabelsBlock;
using nmb::test::MetricsPayload;

std::vector<LabelsBlock> labels_blocks() {
  return {LabelsBlock('L', 0).id(0).id(2), LabelsBlock('I', 1).text("node1").text(""),
          LabelsBlock('M', 0).id(1).text("mixed").id(3), LabelsBlock('L', 2)};
}

std::vector<std::pair<std::string, ByteVec>> payloads() {
  MetricsPayload names = MetricsPayload()
                             .label_names({"host", "dev"})
                             .label_names({"port"})
                             .label_values({"node1", "", "mlx5_0", "1"})
                             .metric_names({"rx_bytes", "tx_bytes", "errors"});
  Batch first = Batch(1700000000123456).sample(0, 5).sample(1, UINT64_MAX).sample(2, 0);
  std::vector<std::pair<std::string, ByteVec>> seeds;
  int index = 0;
  for (const LabelsBlock& block : labels_blocks()) {
    seeds.emplace_back("labels_" + std::to_string(index++),
                       MetricsPayload(names).batch(Batch(first).labels(block)).bytes());
  }
  seeds.emplace_back("batches", MetricsPayload(names)
                                    .common_labels({{"site", "lab"}, {"host", "common"}})
                                    .blocksize(64)
                                    .batch(Batch(first).labels(labels_blocks()[0]))
                                    .batch(Batch(2, 'G').sample(1, 7).labels(labels_blocks()[1]))
                                    .batch(Batch(3).labels(labels_blocks()[2]))
                                    .bytes());
  seeds.emplace_back("common_first", MetricsPayload()
                                         .common_labels({{"k", "v"}})
                                         .label_values({"a"})
                                         .metric_names({"m"})
                                         .batch(Batch(4).sample(0, 1))
                                         .bytes());
  ByteVec in_chunk = MetricsPayload(names).batch(Batch(5)).bytes();
  in_chunk.resize(in_chunk.size() + 64, 0);
  seeds.emplace_back("in_chunk", in_chunk);
  return seeds;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s <payload folder> <labels block folder>\n", argv[0]);
    return 2;
  }
  try {
    std::filesystem::create_directories(argv[1]);
    std::filesystem::create_directories(argv[2]);
    for (const auto& [name, bytes] : payloads())
      nmb::test::write_file(std::string(argv[1]) + "/" + name + ".bin", bytes);
    int index = 0;
    for (const LabelsBlock& block : labels_blocks()) {
      ByteVec seed(15, 0xEE);  // the start offset 14, then the batch header
      seed[0] = 14;
      ByteVec bytes = block.bytes();
      seed.insert(seed.end(), bytes.begin(), bytes.end());
      nmb::test::write_file(std::string(argv[2]) + "/labels_" + std::to_string(index++) + ".bin",
                            seed);
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "make_metrics_seeds: %s\n", e.what());
    return 1;
  }
  return 0;
}
