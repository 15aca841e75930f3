#include "base/log.h"
#include "base/run_as.h"
#include "librb/process.h"

namespace librb {
namespace {

constexpr char kLogUnit[] = "privilege";

}  // namespace

bool DoActionAsRoot(const std::string& name, const std::function<bool()>& action) {
  IF_RUN_AS(root);
  if (root) return action && action();
  TARN_LOG_ERR("no root rights for [%s]", name.c_str());
  return false;
}

}  // namespace librb
