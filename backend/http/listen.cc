#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "backend/http/server.h"

namespace tarnbackend::http {
namespace {

[[noreturn]] void Refuse(const std::string& address, const std::string& why) {
  throw std::runtime_error("cannot listen on " + address + ": " + why);
}

bool IsPort(const std::string& text) {
  return !text.empty() && text.size() <= 5 &&
         text.find_first_not_of("0123456789") == std::string::npos && std::stoi(text) <= 65535;
}

struct HostAndPort {
  std::string host, port;
};

HostAndPort Split(const std::string& address) {
  const size_t colon = address.rfind(':');
  std::string host = address.substr(0, colon);
  if (colon == std::string::npos || host.empty() || !IsPort(address.substr(colon + 1))) {
    Refuse(address, "an address is written as 127.0.0.1:8080 or [::1]:8080");
  }
  const bool bracketed = host.front() == '[' && host.back() == ']';
  if (bracketed) host = host.substr(1, host.size() - 2);
  if (!bracketed && host.find(':') != std::string::npos) {
    Refuse(address, "an IPv6 address stands in brackets");
  }
  return {host, address.substr(colon + 1)};
}

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

AddressList Resolve(const std::string& address) {
  const HostAndPort split = Split(address);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* list = nullptr;
  const int status = getaddrinfo(split.host.c_str(), split.port.c_str(), &hints, &list);
  if (status != 0) Refuse(address, gai_strerror(status));
  return AddressList(list, freeaddrinfo);
}

}  // namespace

UniqueFd Listen(const std::string& address) {
  const AddressList list = Resolve(address);
  UniqueFd fd(socket(list->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.valid()) Refuse(address, std::strerror(errno));
  // A server that is started again takes over the address at once.
  const int on = 1;
  setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (list->ai_family == AF_INET6) setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  if (bind(fd.get(), list->ai_addr, list->ai_addrlen) != 0 || listen(fd.get(), SOMAXCONN) != 0) {
    Refuse(address, std::strerror(errno));
  }
  return fd;
}

std::string LocalAddress(int fd) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  char host[NI_MAXHOST], port[NI_MAXSERV];
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
      getnameinfo(reinterpret_cast<sockaddr*>(&address), length, host, sizeof host, port,
                  sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return "";
  }
  const bool bracketed = address.ss_family == AF_INET6;
  return (bracketed ? "[" + std::string(host) + "]" : std::string(host)) + ":" + port;
}

}  // namespace tarnbackend::http
