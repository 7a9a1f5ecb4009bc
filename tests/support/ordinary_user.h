#pragma once

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace kelvane {

// Calls `check` in a child process that has no privileges, since root is refused nothing, and gives
// its result; false if that can't be done. What it looks at must be open to everybody.
inline bool as_ordinary_user(const std::function<bool()>& check) {
  constexpr uid_t kNobody = 65534;
  const pid_t child = ::fork();
  if (child == 0) {
    const bool dropped = ::geteuid() != 0 || (::setgroups(0, nullptr) == 0 &&
                                              ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0);
    ::_exit(dropped && check() ? 0 : 1);
  }
  int status = 0;
  return child > 0 && ::waitpid(child, &status, 0) == child && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

}  // namespace kelvane
