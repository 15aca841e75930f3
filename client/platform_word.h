#pragma once

#include <string>

namespace tarnclient {

// The platform word that the engine read, with the model behind "_" where one is named; empty where
// the host names none. (The engine itself only answers predicates.)
std::string PlatformWord();

}  // namespace tarnclient
