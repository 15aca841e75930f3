// Which host a request is for (RFC 9110, section 7.2).
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tarnbackend::http {

// "localhost" of "LocalHost:8080", "::1" of "[::1]:8080"; empty for what is no host.
std::string HostName(std::string_view host);

// Whether `host`, as a request has it, is one of `names`; brackets make no difference. True when
// there are no names.
bool HostAllowed(std::string_view host, const std::vector<std::string>& names);

}  // namespace tarnbackend::http
