// --shard K/N: the K-th of N contiguous slices of the run's input files, cut
// so that every slice holds about the same number of input bytes (files are
// never split), for spreading one export over many machines.
// Stage: driver.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Parses "K/N" (decimal, 0 <= K < N <= NMB_MAX_SHARDS); false otherwise.
bool nmb_parse_shard(const char* text, uint32_t& index, uint32_t& count);

inline constexpr uint32_t NMB_MAX_SHARDS = 1000000;

// The files of slice `index` of `count`, in their order. A file belongs to
// the slice in which the middle of its bytes lies, counting the sizes of the
// files before it (from stat; a file that cannot be read counts as empty).
// When all files are empty the slices are cut by count of files.
std::vector<std::string> nmb_shard_paths(const std::vector<std::string>& paths, uint32_t index,
                                         uint32_t count);
