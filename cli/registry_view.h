// The load registry as the command shows it.
#pragma once

#include "client/registry_view.h"

namespace tarncli {

class RegistryView : public tarnclient::RegistryView {
 public:
  // Throws Failure where the registry cannot be locked.
  RegistryView();
};

}  // namespace tarncli
