#include "registry_view.h"

#include "command.h"

namespace tarncli {

RegistryView::RegistryView() {
  if (IsLockSucess()) return;
  throw Failure{
      Exit::kFailure,
      "/tmp/Reelbay/enabled: the registry cannot be opened and locked (\"tarnvte doctor\" "
      "checks the folder and the user)",
      ""};
}

}  // namespace tarncli
