// Runs a piece of a test in a child process, so that the driver's static state (which only a
// fresh load resets) starts at zero for each row of a table. The child's failures are printed
// by the child; the parent sees a non-zero exit code.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

inline int RunIsolated(const std::function<void()>& body) {
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    body();
    std::fflush(nullptr);
    _exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
