// libavformat writes a line for each thing that is wrong with a hostile file.
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/log.h>
}

namespace {

class Quiet : public testing::Environment {
  void SetUp() override { av_log_set_level(AV_LOG_QUIET); }
};
[[maybe_unused]] const testing::Environment* const g_quiet =
    testing::AddGlobalTestEnvironment(new Quiet);

}  // namespace
