// What the real C library gives no occasion for: two of its routines are replaced at link time.
#include <errno.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <string.h>

#include "exec/commands.h"
#include "exec/texec.h"

namespace {
bool init_fails = false;
int destroyed = 0;
}  // namespace

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c): the linker's names
int __real_posix_spawn_file_actions_init(posix_spawn_file_actions_t* actions);
int __wrap_posix_spawn_file_actions_init(posix_spawn_file_actions_t* actions) {
  if (!init_fails) return __real_posix_spawn_file_actions_init(actions);
  memset(actions, 0xa5, sizeof *actions);
  return ENOMEM;
}

int __real_posix_spawn_file_actions_destroy(posix_spawn_file_actions_t* actions);
int __wrap_posix_spawn_file_actions_destroy(posix_spawn_file_actions_t* actions) {
  ++destroyed;
  return __real_posix_spawn_file_actions_destroy(actions);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c)
}

TEST(SpawnWithASubstitute, FallsBackOnTheForkWithoutTouchingActionsThatAreNone) {
  for (const bool fails : {false, true}) {
    SCOPED_TRACE(fails);
    init_fails = fails;
    destroyed = 0;
    EXPECT_EQ(testexec::capture(testexec::command({"echo", "text"})).out, "text\n");
    EXPECT_EQ(destroyed, fails ? 0 : 1);
  }
  init_fails = false;
}
