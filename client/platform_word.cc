#include "client/platform_word.h"

#include "tarnvte/platform_utils.h"

namespace tarnclient {
namespace {

struct Words : librb::util::PlatformUtils {
  static std::string Join(const PlatformUtils& utils) {
    const std::string& platform = utils.*(&Words::platform);
    const std::string& model = utils.*(&Words::model);
    return model.empty() ? platform : platform + "_" + model;
  }
};

}  // namespace

std::string PlatformWord() { return Words::Join(librb::util::PlatformUtils::GetInst()); }

}  // namespace tarnclient
