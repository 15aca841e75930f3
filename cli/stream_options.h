// The options that every subcommand with a stream has.
#pragma once

#include <string>
#include <vector>

#include "command.h"
#include "prepared_stream.h"

namespace tarncli {

// FILE, --profile, --profile-file and --audio; --kind where there are several `kinds`, of which the
// first is the default. `profile_default` says in the help which profile is taken where none is
// named.
void AddStreamOptions(CLI::App& sub, const std::vector<std::string>& kinds,
                      const std::string& profile_default, StreamRequest& request,
                      std::string& audio);

}  // namespace tarncli
