// Volume service: where large working data may go.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

struct TARNVolumeQuery {
  uint64_t needed_bytes;  // in: free space that the volume must have
  char path[256];         // out: where the volume is mounted, without a trailing "/" (root is "")
};

// Reason bits for "no volume qualifies".
enum {
  TARN_VOLUME_NO_WRITABLE = 1,  // no volume is mounted and writable
  TARN_VOLUME_NO_SPACE = 4,     // there are volumes, and none has the space
};

// Returns 1 and fills query->path with the qualifying volume that has the most free space; 0 when
// none qualifies, with reason bits in *flags; -1 on an error, whose code QLIBCErrGet then returns.
int TARNVolumeServiceAliveVolumeGet(struct TARNVolumeQuery* query, unsigned* flags);

}  // extern "C"
