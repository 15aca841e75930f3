// What the kernel knows of a connection.
#pragma once

#include <cstdint>

namespace tarnbackend::http {

// How many bytes the other side has acknowledged since the connection began; 0 for a socket that
// is none of TCP's.
uint64_t AcknowledgedBytes(int fd);

}  // namespace tarnbackend::http
