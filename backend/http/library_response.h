// Answers as libmicrohttpd takes them.
#pragma once

#include <microhttpd.h>

#include "backend/http/answer.h"

namespace tarnbackend::http {

class Call;

struct LibraryResponse {
  // The caller destroys it.
  MHD_Response* response = nullptr;
  // Bytes of the body; 0 for a pipe.
  uint64_t length = 0;
};

// Takes the body out of `response`, but for a pipe, which `call` reads. Without `with_body` only
// its length counts (HEAD, 304).
LibraryResponse MakeLibraryResponse(const Answer& answer, Response& response, Call& call,
                                    bool with_body);

}  // namespace tarnbackend::http
