// Another process, as a client program or a second locator would be one.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace talvorn::testing {

constexpr uid_t kNobody = 65534;

class ChildProcess {
 public:
  // Returns when `procedure` has run in the child, which then sleeps until it is
  // killed. What shall live as long as the child must not be local to `procedure`.
  explicit ChildProcess(const std::function<void()>& procedure) {
    int ends[2];
    if (pipe(ends) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      procedure();
      (void)!write(ends[1], "", 1);
      for (;;) pause();
    }
    close(ends[1]);
    char ready = 0;
    (void)!read(ends[0], &ready, 1);
    close(ends[0]);
  }
  ~ChildProcess() { Kill(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  void Kill() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
};

// What `procedure` returns in a child process, from 0 to 255; -1 when the child died.
inline int ResultInChild(const std::function<int()>& procedure) {
  const pid_t child = fork();
  if (child == 0) _exit(procedure());
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Whether `procedure` is true in a process of an account that has no rights.
inline bool DoneByNobody(const std::function<bool()>& procedure) {
  return ResultInChild(
             [&] { return setresuid(kNobody, kNobody, kNobody) == 0 && procedure() ? 0 : 1; }) == 0;
}

}  // namespace talvorn::testing
