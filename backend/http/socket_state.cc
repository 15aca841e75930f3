#include "backend/http/socket_state.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace tarnbackend::http {

uint64_t AcknowledgedBytes(int fd) {
  tcp_info info{};
  socklen_t length = sizeof info;
  if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) != 0) return 0;
  return info.tcpi_bytes_acked;
}

}  // namespace tarnbackend::http
