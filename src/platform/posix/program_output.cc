#include "platform/posix/program_output.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <vector>

#include "platform/clock.h"
#include "platform/posix/descriptor.h"
#include "platform/posix/io.h"
#include "platform/posix/wait.h"

namespace talvorn::platform {
namespace {

constexpr std::uint32_t kLimitMs = 10'000;
constexpr std::size_t kLargest = 16 << 20;

std::string PathOf(const std::string& program) {
  for (const std::string folder : {"/usr/sbin/", "/usr/bin/", "/sbin/", "/bin/"}) {
    if (std::string path = folder + program; access(path.c_str(), X_OK) == 0) return path;
  }
  return {};
}

// A process that writes into our pipe, and does not outlive this.
class Child {
 public:
  Child(const std::string& path, std::span<const std::string> arguments, int output) {
    std::vector<char*> argv = {const_cast<char*>(path.c_str())};
    for (const std::string& one : arguments) argv.push_back(const_cast<char*>(one.c_str()));
    argv.push_back(nullptr);
    std::array<std::string, 2> variables = {"LC_ALL=C.UTF-8", "PATH=/usr/sbin:/usr/bin:/sbin:/bin"};
    std::array<char*, 3> environment = {variables[0].data(), variables[1].data(), nullptr};

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    started_ = posix_spawn(&id_, path.c_str(), &actions, &attributes, argv.data(),
                           environment.data()) == 0;
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Child() {
    if (!started_) return;
    kill(id_, SIGKILL);
    (void)Wait();
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  [[nodiscard]] bool started() const { return started_; }

  // True when it has ended well.
  bool Wait() {
    int status = 0;
    started_ = false;
    return Retried([&] { return waitpid(id_, &status, 0); }) == id_ && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
  }

 private:
  pid_t id_ = 0;
  bool started_ = false;
};

// Everything up to the end of the pipe; none when that does not come in time.
std::optional<std::string> ReadToEnd(int pipe) {
  std::string text;
  std::array<char, 65'536> buffer;
  const std::uint64_t deadline = MonotonicMs() + kLimitMs;
  for (;;) {
    const std::uint64_t now = MonotonicMs();
    if (now >= deadline || text.size() > kLargest) return std::nullopt;
    const auto left = static_cast<std::uint32_t>(deadline - now);
    if (WaitForDescriptor(pipe, POLLIN, left) != WaitStatus::kSignalled) return std::nullopt;
    const ssize_t size = Retried([&] { return read(pipe, buffer.data(), buffer.size()); });
    if (size < 0) return std::nullopt;
    if (size == 0) return text;
    text.append(buffer.data(), static_cast<std::size_t>(size));
  }
}

}  // namespace

std::optional<std::string> OutputOf(const std::string& program,
                                    std::span<const std::string> arguments) {
  const std::string path = PathOf(program);
  std::array<int, 2> ends{};
  if (path.empty() || pipe2(ends.data(), O_CLOEXEC) != 0) return std::nullopt;
  const Descriptor reading(ends[0]);
  Descriptor writing(ends[1]);
  Child child(path, arguments, writing.get());
  writing = Descriptor();
  if (!child.started()) return std::nullopt;
  auto text = ReadToEnd(reading.get());
  return text && child.Wait() ? std::move(text) : std::nullopt;
}

}  // namespace talvorn::platform
