// The words of the API's errors: the engine's own, the conversion's and the server's.
#pragma once

#include <string>

#include "backend/http/server.h"
#include "backend/work/worker_pool.h"

namespace tarnbackend {

// {"error", "message"} with the word's status and its sentence for people; an unknown word is
// "failed". What is busy carries Retry-After.
http::Response Refusal(const std::string& word);
// The same for a call that was not done.
http::Response RefusalOf(const Answer& answer);

}  // namespace tarnbackend
