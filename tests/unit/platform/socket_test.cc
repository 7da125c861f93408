#include "platform/socket.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/thread.h"
#include "testing/socket_library.h"

namespace talvorn::platform {
namespace {

constexpr std::uint32_t kGenerousMs = 30'000;
const std::uint32_t kLoopback = ParseIpv4("127.0.0.1");

Socket Sender() { return Socket::Create(AddressFamily::kIpv4, SocketType::kDatagram); }

Socket Receiver() {
  Socket socket = Socket::CreateReceiver(AddressFamily::kIpv4);
  EXPECT_EQ(socket.Bind(SocketAddress::Ipv4(kLoopback, 0)), BindOutcome::kBound);
  return socket;
}

bool Send(Socket& socket, const SocketAddress& destination, std::string_view text) {
  return socket.SendTo(std::as_bytes(std::span(text)), destination) == text.size();
}

std::vector<std::string> Receive(Socket& socket) {
  Datagrams datagrams;
  std::vector<std::string> texts;
  const std::size_t taken = socket.Receive(datagrams).value_or(0);
  for (std::size_t i = 0; i < taken; ++i)
    texts.emplace_back(reinterpret_cast<const char*>(datagrams[i].data()), datagrams[i].size());
  return texts;
}

// Waits for `count` texts.
std::vector<std::string> Await(Socket& socket, std::size_t count) {
  std::vector<std::string> texts;
  const Waitable* const waited[] = {&socket};
  while (texts.size() < count && WaitForAny(waited, kGenerousMs) == WaitStatus::kSignalled) {
    for (std::string& text : Receive(socket)) texts.push_back(std::move(text));
  }
  return texts;
}

TEST(Datagrams, ComeInOrderAndEachByItself) {
  Socket receiver = Receiver();
  Socket sender = Sender();
  std::vector<std::string> sent = {"", "first", std::string(2'000, 'x'), "after a long one"};
  while (sent.size() < 2 * Datagrams::kMost + 3) sent.push_back(std::to_string(sent.size()));
  for (const std::string& text : sent) ASSERT_TRUE(Send(sender, receiver.LocalAddress(), text));
  sent[2].resize(Datagrams::kLargest);
  EXPECT_EQ(Await(receiver, sent.size()), sent);
}

// Datagrams that come in just when a receive finds nothing must not be slept through.
TEST(Datagrams, AreNotSleptThrough) {
  constexpr int kRounds = 500;
  Socket here = Receiver();
  Socket there = Receiver();
  Socket third = Sender();
  Thread echo = Thread::Start("echo", [&] {
    for (int i = 0; i < kRounds; ++i) {
      if (Await(there, 1).size() != 1 || !Send(there, here.LocalAddress(), "back")) return 1u;
    }
    return 0u;
  });
  bool all = true;
  for (int i = 0; i < kRounds && all; ++i) {
    all = Send(here, there.LocalAddress(), "to");
    // Perhaps the answer, perhaps nothing yet.
    const std::size_t early = i % 2 == 0 ? Receive(here).size() : 0;
    all = all && Send(third, here.LocalAddress(), "more") &&
          Await(here, 2 - early).size() == 2 - early;
  }
  EXPECT_TRUE(all);
  EXPECT_TRUE(echo.Join());
}

// A port that nobody has open answers a datagram with an error.
TEST(Datagrams, ComeAfterTheErrorOfAPortWithoutReceiver) {
  Socket socket = Receiver();
  const std::uint16_t closed = Receiver().LocalAddress().port();
  ASSERT_TRUE(Send(socket, SocketAddress::Ipv4(kLoopback, closed), "lost"));
  ASSERT_TRUE(Send(socket, socket.LocalAddress(), "end"));
  EXPECT_EQ(Await(socket, 1), std::vector<std::string>{"end"});
}

}  // namespace
}  // namespace talvorn::platform
