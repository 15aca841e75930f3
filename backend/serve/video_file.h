// Files as answers.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "backend/http/server.h"
#include "backend/library/library.h"

namespace tarnbackend {

// A strong validator: changes with the file's content, as far as the file system tells.
std::string FileTag(const struct stat& status);

// A video's own file. With a validator, so that parts of it can be asked for. 404 when it is not
// there any more.
http::Response FileResponse(const Library& library, int32_t id);

}  // namespace tarnbackend
