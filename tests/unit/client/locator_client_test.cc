#include "client/locator_client.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "exchange/messages/messages.h"
#include "platform/event.h"
#include "platform/mailslot.h"
#include "platform/thread.h"
#include "support/byte_io.h"
#include "testing/scratch_machine.h"
#include "testing/wait_until.h"

namespace talvorn {
namespace {

using Bytes = std::vector<std::byte>;
using platform::Event;

constexpr std::uint32_t kLongMs = 30'000;
constexpr std::uint32_t kShortMs = 150;

Bytes Reply(ReplyType type, std::uint32_t count, std::span<const std::byte> payload) {
  Bytes reply(kReplyHeaderSize + payload.size());
  EncodeReplyHeader(
      {.totalLength = static_cast<std::uint32_t>(reply.size()), .type = type, .count = count},
      reply);
  std::ranges::copy(payload, reply.begin() + kReplyHeaderSize);
  return reply;
}

Bytes TextReply(ReplyType type, std::string text) {
  text.push_back('\0');
  return Reply(type, static_cast<std::uint32_t>(text.size()), AsBytes(text));
}

void Deliver(const std::u16string& mailslot, const Bytes& reply) {
  EXPECT_EQ(platform::WriteMailslot(mailslot, reply, 1'000), platform::MailslotWrite::kWritten);
}

// Stands in for the locator: hands every request to `serve`, in a thread of its own.
class FakeLocator {
 public:
  using Serve = std::function<void(const Request& request)>;

  explicit FakeLocator(Serve serve)
      : serve_(std::move(serve)),
        stop_(Event::Create(Event::Mode::kManualReset)),
        mailslot_(platform::Mailslot::Create(platform::kLocatorMailslot, nullptr)) {
    EXPECT_TRUE(mailslot_.valid());
    thread_ = platform::Thread::Start("fake-locator", [this] { return Run(); });
  }
  ~FakeLocator() {
    stop_.Set();
    thread_.Join();
  }

 private:
  std::uint32_t Run() {
    while (!stop_.Test()) {
      if (mailslot_.WaitForMessage(stop_, kLongMs) != platform::WaitStatus::kSignalled) continue;
      platform::Message message;
      (void)mailslot_.Take(message, 64 << 10);
      if (const auto request = DecodeRequest(message.bytes())) serve_(*request);
    }
    return 0;
  }

  Serve serve_;
  Event stop_;
  platform::Mailslot mailslot_;
  platform::Thread thread_;
};

class LocatorClientTest : public ::testing::Test {
 protected:
  testing::ScratchMachine machine_;
};

TEST_F(LocatorClientTest, PassesOverWhatIsNotItsReply) {
  FakeLocator locator([](const Request& request) {
    // The answer to somebody's unnamed request, junk, and a reply that lies.
    Deliver(request.replyMailslot,
            TextReply(ReplyType::kUnknownCommand, "UNKNOWN COMMAND: INVALID COMMAND"));
    Deliver(request.replyMailslot, Bytes(3, std::byte{0x41}));
    Deliver(request.replyMailslot, Bytes(500, std::byte{0x41}));
    Bytes lie = TextReply(ReplyType::kVersion, "9.9.9.9");
    lie[8] = std::byte{0xFF};
    Deliver(request.replyMailslot, lie);
    Deliver(request.replyMailslot, TextReply(ReplyType::kVersion, "1.0.0.0"));
  });
  LocatorClient client({.timeoutMs = kLongMs});
  EXPECT_EQ(client.GetVersion().value, "1.0.0.0");
}

TEST_F(LocatorClientTest, IgnoresTheReplyToAnEarlierRequest) {
  std::u16string first;
  FakeLocator locator([&](const Request& request) {
    if (first.empty()) {
      first = request.replyMailslot;  // answered too late
      return;
    }
    (void)platform::WriteMailslot(first, TextReply(ReplyType::kVersion, "stale"), 0);
    Deliver(request.replyMailslot, TextReply(ReplyType::kVersion, "fresh"));
  });
  LocatorClient client({.timeoutMs = kShortMs});
  EXPECT_EQ(client.GetVersion().status, ClientStatus::kNoAnswer);
  Answer<std::string> second;
  EXPECT_TRUE(testing::WaitUntil([&] { return bool(second = client.GetVersion()); }));
  EXPECT_EQ(second.value, "fresh");
}

TEST_F(LocatorClientTest, RefusesWhatTheLocatorCannotTake) {
  FakeLocator locator([](const Request&) { ADD_FAILURE() << "a request was sent"; });
  LocatorClient client({.timeoutMs = kLongMs});
  for (const std::string& path : {std::string(), std::string("/\xC5\xBA"), std::string("/\xFF"),
                                  std::string("/a\0b", 4), std::string(1'013, 'x')}) {
    EXPECT_EQ(client.SetLogPath(path), ClientStatus::kBadRequest) << path;
  }
}

TEST_F(LocatorClientTest, SaysWhyThereIsNoAnswer) {
  FakeLocator locator([](const Request& request) {
    if (request.command == "GETINFO") Deliver(request.replyMailslot, Bytes(100, std::byte{1}));
  });
  EXPECT_EQ(LocatorClient({.timeoutMs = kShortMs}).GetDevices().status, ClientStatus::kBadReply);
  const Event interrupt = Event::Create(Event::Mode::kManualReset);
  interrupt.Set();
  LocatorClient interrupted({.timeoutMs = kLongMs, .interrupt = &interrupt});
  EXPECT_EQ(interrupted.GetItems().status, ClientStatus::kInterrupted);
}

}  // namespace
}  // namespace talvorn
