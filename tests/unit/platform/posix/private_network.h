// Network namespaces of the test's own, so that real interfaces can come and go.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdio.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <utility>

#include "platform/posix/descriptor.h"

namespace talvorn::platform {

// A network namespace. A socket stays in the one where it was made, whatever the
// thread does later.
class NetworkNamespace {
 public:
  // A new one, with its loopback up; none where this process may not make one.
  static std::optional<NetworkNamespace> Create() {
    const Descriptor before = Current();
    if (unshare(CLONE_NEWNET) != 0 && !EnterUserNamespace()) return std::nullopt;
    NetworkNamespace result(Current());
    (void)setns(before.get(), CLONE_NEWNET);  // refused to users: they stay inside
    if (!result.Ip("link set lo up\n")) return std::nullopt;
    return result;
  }

  // Runs `procedure` with the thread inside and returns what it does.
  template <typename Procedure>
  auto Inside(Procedure&& procedure) const {
    struct Return {
      Descriptor before = Current();
      ~Return() { (void)setns(before.get(), CLONE_NEWNET); }
    } const back;
    (void)setns(fd_.get(), CLONE_NEWNET);
    return std::forward<Procedure>(procedure)();
  }

  // Commands of ip(8), one a line. True when all of them succeeded.
  [[nodiscard]] bool Ip(const std::string& commands) const {
    return Inside([&] {
      FILE* const ip = popen("ip -batch -", "w");
      if (ip == nullptr) return false;
      const bool written = fputs(commands.c_str(), ip) >= 0;
      return pclose(ip) == 0 && written;
    });
  }

  // How a command of ip(8) names this namespace, such as in "netns NAME".
  [[nodiscard]] std::string name() const {
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd_.get());
  }

 private:
  explicit NetworkNamespace(Descriptor fd) : fd_(std::move(fd)) {}

  static Descriptor Current() {
    return Descriptor(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
  }

  // Becomes root of a user namespace with a network of its own, for good.
  static bool EnterUserNamespace() {
    const std::string uid = std::to_string(geteuid());
    const std::string gid = std::to_string(getegid());
    return unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0 && Write("/proc/self/setgroups", "deny") &&
           Write("/proc/self/uid_map", "0 " + uid + " 1") &&
           Write("/proc/self/gid_map", "0 " + gid + " 1");
  }

  static bool Write(const char* path, const std::string& text) {
    const Descriptor file(open(path, O_WRONLY | O_CLOEXEC));
    return write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
  }

  Descriptor fd_;
};

// A host with the interfaces "one" (index 101) and "two" (102), and what is on the other
// ends of their cables: "one-end" (201) and "two-end" (202).
class CabledHost : public ::testing::Test {
 protected:
  void SetUp() override {
    host_ = NetworkNamespace::Create();
    elsewhere_ = NetworkNamespace::Create();
    if (!host_ || !elsewhere_) {
      GTEST_SKIP() << "needs root or user namespaces, and ip(8), to make a network of its own";
    }
    Connect("one", 101);
    Connect("two", 102);
  }

  void Connect(const std::string& name, int index) const {
    OnHost("link add " + name + " index " + std::to_string(index) + " type veth peer name " + name +
           "-end index " + std::to_string(index + 100) + " netns " + elsewhere_->name() +
           "\nlink set " + name + " up\n");
    Elsewhere("link set " + name + "-end up\n");
  }
  void OnHost(const std::string& commands) const { ASSERT_TRUE(host_->Ip(commands)) << commands; }
  void Elsewhere(const std::string& commands) const {
    ASSERT_TRUE(elsewhere_->Ip(commands)) << commands;
  }

  std::optional<NetworkNamespace> host_;
  std::optional<NetworkNamespace> elsewhere_;
};

}  // namespace talvorn::platform
