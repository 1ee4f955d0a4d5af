// The checkpoint of --checkpoint: for every input file its identity (device,
// inode, path) and the end of its last exported chunk, so that a later run
// resumes every file where this one stopped. Written atomically (a
// temporary file beside it, fsync, rename), after the output it accounts for
// has been flushed.
// Stage: driver.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct nmb_checkpoint_entry_t {
  std::string path;
  uint64_t device = 0;
  uint64_t inode = 0;
  uint64_t offset = 0;  // the end of the last exported chunk
  // The header's first timestamp: an inode reused by a later file does not
  // make that file look like the one the entry is about.
  uint64_t first_timestamp = 0;
};

struct nmb_checkpoint_t {
  std::vector<nmb_checkpoint_entry_t> files;

  // The entry of the file with this identity: by device, inode and first
  // timestamp, so a renamed file is still known, and a replaced one
  // (another inode at the path) or one that reuses a deleted file's inode
  // is a new file.
  const nmb_checkpoint_entry_t* find(uint64_t device, uint64_t inode,
                                     uint64_t first_timestamp) const;
};

// Reads `path`: an empty checkpoint when the file does not exist (the first
// run), nothing (logged: "Failed to read checkpoint <path>: <why>") when it
// exists and cannot be read or is not a checkpoint.
std::optional<nmb_checkpoint_t> nmb_checkpoint_read(const std::string& path);

// Writes `checkpoint` to `path` atomically; false (logged) when it could not.
bool nmb_checkpoint_write(const std::string& path, const nmb_checkpoint_t& checkpoint);
