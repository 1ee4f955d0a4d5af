// The adapter (HCA) table of a host: 84-byte records naming each adapter and
// its node, system image and port GUIDs; its digest and JSON text, filling it
// from the InfiniBand class directory, and the host name of a client
// identifier.
// Stage: base.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

inline constexpr size_t NMB_HCA_NAME_SIZE = 20;
inline constexpr size_t NMB_HCA_GUID_SIZE = 16;
inline constexpr size_t NMB_HCA_TABLE_CAPACITY = 6;
inline constexpr const char* NMB_INFINIBAND_ROOT = "/sys/class/infiniband";

struct nmb_hca_info_t {  // 84 bytes, text without terminators when full
  char hca_name[NMB_HCA_NAME_SIZE];
  char node_guid[NMB_HCA_GUID_SIZE];
  char system_image_guid[NMB_HCA_GUID_SIZE];
  char port_1_guid[NMB_HCA_GUID_SIZE];
  char port_2_guid[NMB_HCA_GUID_SIZE];  // zero bytes: no second port
};
static_assert(sizeof(nmb_hca_info_t) == 84);

struct nmb_client_id_t {  // 66 bytes
  char host_name[64];
  uint16_t port;
};

// The used part of a table: its leading records with a name.
size_t nmb_hca_info_count(const nmb_hca_info_t* records, size_t capacity);
// MD5 of the used records (84 bytes each; no bytes for an empty table).
bool nmb_hca_info_digest(const nmb_hca_info_t* records, size_t capacity, uint8_t (&digest)[16]);
// The compact JSON text: "timestamp" when given, then "<name>.node_guid",
// "<name>.system_image_guid", "<name>.port_1_guid" and, when present,
// "<name>.port_2_guid" per record. 1 on success, 0 on failure.
int nmb_hca_info_to_json(const uint64_t* timestamp, const nmb_hca_info_t* records, size_t capacity,
                         std::string& text);
// Fills the table from an InfiniBand class directory (`root`, normally
// NMB_INFINIBAND_ROOT): adapters in name order, their GUID files parsed.
void nmb_hca_info_fill(nmb_hca_info_t* records, size_t capacity,
                       const char* root = NMB_INFINIBAND_ROOT);
// One GUID file's content (at most 40 bytes) as 16 hex digits: a GID's
// subnet prefix (the first 20 bytes of a long text) is dropped, then every
// fifth byte (the colons and the newline).
void nmb_hca_info_parse_guid(const char* text, size_t length, char (&field)[NMB_HCA_GUID_SIZE]);

// The host name: NMB_HOST_NAME when set (up to size - 1 characters), else the
// system host name cut at its first '.'; nullptr when the system call fails.
char* nmb_get_host_name(char* buffer, size_t size);
// A zero-filled client identifier with the host name; false when none is found.
bool nmb_client_id_create(nmb_client_id_t& id);
