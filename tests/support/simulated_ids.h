// The effective user and group of a process, by the kernel's rules, for tests that cannot have a
// second user: only root may change the group, and anybody may go back to root or to the own user.
#pragma once

#include "base/run_as.h"

namespace test {

class SimulatedIds {
 public:
  SimulatedIds(unsigned user, unsigned group) {
    state = {user, group, kNobody, kNobody};
    tarn::SetIdCalls(
        SetUser, SetGroup, [] { return state.user; }, [] { return state.group; });
  }
  ~SimulatedIds() { tarn::SetIdCalls(nullptr, nullptr); }
  SimulatedIds(const SimulatedIds&) = delete;
  SimulatedIds& operator=(const SimulatedIds&) = delete;

  unsigned user() const { return state.user; }
  unsigned group() const { return state.group; }

  // From now on switching to this id fails.
  void RefuseUser(unsigned id) { state.refused_user = id; }
  void RefuseGroup(unsigned id) { state.refused_group = id; }

 private:
  static constexpr unsigned kNobody = ~0U;

  static int SetUser(unsigned id) {
    if (id == state.refused_user) return -1;
    state.user = id;
    return 0;
  }
  static int SetGroup(unsigned id) {
    if (id == state.refused_group || state.user != 0) return -1;
    state.group = id;
    return 0;
  }

  struct State {
    unsigned user, group, refused_user, refused_group;
  };
  static inline State state;
};

}  // namespace test
