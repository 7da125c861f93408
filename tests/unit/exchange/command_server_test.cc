#include "exchange/command_server.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "messages/messages.h"
#include "platform/directories.h"
#include "platform/fault_injection.h"
#include "platform/mailslot.h"
#include "platform/named_object.h"
#include "support/byte_io.h"
#include "support/debug_trace.h"
#include "testing/scratch_machine.h"
#include "testing/trace_capture.h"
#include "testing/wait_until.h"

namespace talvorn {
namespace {

using platform::Mailslot;
using platform::MailslotWrite;

std::string Header(std::uint32_t length, std::uint32_t type, std::uint32_t count) {
  std::array<std::byte, 12> bytes{};
  ByteWriter writer(bytes);
  writer.U32Little(length);
  writer.U32Little(type);
  writer.U32Little(count);
  return std::string(AsText(bytes));
}

class CommandServerTest : public ::testing::Test {
 protected:
  static constexpr std::u16string_view kInbox = u"\\\\.\\mailslot\\test_client";

  CommandServerTest() {
    DebugTrace().SetEnabled(0);
    context_.responseList = &responses_;
    context_.itemList = &items_;
    inbox_ = Mailslot::Create(kInbox, 100, nullptr);
    default_ = Mailslot::Create(kDefaultReplyMailslot, 100, nullptr);
    EXPECT_TRUE(inbox_.valid());
    EXPECT_TRUE(default_.valid());
  }
  ~CommandServerTest() override { StopExchange(context_); }

  void Serve() {
    ASSERT_TRUE(StartExchange(context_));
    // The server is ready once it answers.
    ASSERT_TRUE(testing::WaitUntil([this] {
      return Write(*EncodeRequest({std::u16string(kInbox), "GETVERSION"})) ==
             MailslotWrite::kWritten;
    }));
    ASSERT_EQ(NextReply(inbox_).size(), 20u);
  }
  static MailslotWrite Write(std::span<const std::byte> message) {
    return platform::WriteMailslot(kServerMailslot, message, 5'000);
  }
  void Send(const std::string& command, std::u16string_view reply = kInbox) {
    EXPECT_EQ(Write(*EncodeRequest({std::u16string(reply), command})), MailslotWrite::kWritten);
  }
  std::string Ask(const std::string& command) {
    Send(command);
    return NextReply(inbox_);
  }
  static std::string NextReply(Mailslot& mailslot) {
    std::optional<std::size_t> size;
    if (!testing::WaitUntil([&] {
          const auto waiting = mailslot.Query();
          if (waiting) size = waiting->nextSize;
          return size.has_value();
        })) {
      return "no reply";
    }
    std::vector<std::byte> bytes(*size);
    const platform::Event event = platform::Event::Create(platform::Event::Mode::kAutoReset);
    bytes.resize(mailslot.Read(bytes, event).value_or(0));
    return std::string(AsText(bytes));
  }
  // No reply came to anything sent so far: the next one is that to GETVERSION.
  void ExpectNoReplySoFar() {
    EXPECT_EQ(Ask("GETVERSION"), Header(20, 2, 8) + std::string("1.0.0.0\0", 8));
    EXPECT_FALSE(default_.Query()->nextSize);
  }

  testing::ScratchMachine machine_;
  CResponseList responses_;
  CItemList items_;
  ExchangeContext context_;
  Mailslot inbox_;
  Mailslot default_;
};

TEST_F(CommandServerTest, CommandsCompareWithoutCaseAndWhole) {
  Serve();
  EXPECT_EQ(Ask("getVersion"), Header(20, 2, 8) + std::string("1.0.0.0\0", 8));
  const std::string unknown = "UNKNOWN COMMAND: GETVERSION ";
  EXPECT_EQ(Ask("GETVERSION "), Header(41, 0, 29) + unknown + '\0');
  EXPECT_EQ(Ask("GETINF").substr(0, 12), Header(36, 0, 24));
}

TEST_F(CommandServerTest, EmptyListsAreAnsweredWithASpareRecordAndByte) {
  Serve();
  EXPECT_EQ(Ask("GETINFO"), Header(379, 3, 0) + std::string(367, '\0'));
  EXPECT_EQ(Ask("GETITEMS"), Header(13, 4, 0) + '\0');
}

TEST_F(CommandServerTest, DevicesCarryThePreferredAddressOfTheMoment) {
  Serve();
  DeviceRecord record;
  record.deviceSerial.Assign("1");
  record.deviceIpv4.Assign("10.0.0.1");
  responses_.Add(&record, 0);
  record.deviceIpv4.Clear();
  record.deviceIpv6.Assign("fe80::1");
  responses_.Add(&record, 0);
  record.deviceSerial.Assign("2");
  responses_.Add(&record, 0);

  const auto addresses = [this] {
    const std::string reply = Ask("GETINFO");
    EXPECT_EQ(reply.substr(0, 12), Header(746, 3, 2));
    const DeviceRecord first = DecodeDeviceRecord(AsBytes(reply).subspan(12));
    return std::string(first.deviceIpv4.view()) + "|" + std::string(first.deviceIpv6.view());
  };
  EXPECT_EQ(addresses(), "10.0.0.1|");
  machine_.WriteSettings("\"Prefered IP Version\"=dword:00000006");
  EXPECT_EQ(addresses(), "|fe80::1");
  machine_.WriteSettings("\"Prefered IP Version\"=\"4\"");
  EXPECT_EQ(addresses(), "10.0.0.1|");
}

TEST_F(CommandServerTest, ItemsFollowTheirHeader) {
  Serve();
  std::array<std::byte, 30> item{};
  ByteWriter writer(item);
  writer.U32Big(30);
  writer.Zero(16);
  writer.U32Big(10);
  {
    const std::lock_guard guard(items_.lock);
    items_.Add(7, *ParseItem(item));
  }
  EXPECT_EQ(Ask("GETITEMS"),
            Header(46, 4, 34) + std::string("\7\0\0\0", 4) + std::string(AsText(item)));
}

TEST_F(CommandServerTest, KeepsALogPath) {
  machine_.WriteSettings("\"Log Path\"=\"D:\\\\Logs\"");
  Serve();
  const auto path = [this] {
    const std::string reply = Ask("GETLOGPATH");
    const std::string text = reply.substr(12, reply.size() - 13);
    const auto length = static_cast<std::uint32_t>(text.size());
    EXPECT_EQ(reply, Header(13 + length, 5, 1 + length) + text + '\0');
    return text;
  };
  testing::TraceCapture capture;
  EXPECT_EQ(path(), "D:\\Logs");
  Send("SETLOGPATH;C:\\Other");
  EXPECT_EQ(path(), "C:\\Other\\");
  EXPECT_EQ(capture.Take(),
            "TALVORN_APPL ----------------------------------------\nTALVORN_APPL CMD_GETLOGPATH\n"
            "TALVORN_APPL CMD_GETLOGPATH LogPath: D:\\Logs\n"
            "TALVORN_APPL ----------------------------------------\nTALVORN_APPL CMD_SETLOGPATH\n"
            "TALVORN_APPL CMD_SETLOGPATH LogPath: C:\\Other\\\n"
            "TALVORN_APPL ----------------------------------------\nTALVORN_APPL CMD_GETLOGPATH\n"
            "TALVORN_APPL CMD_GETLOGPATH LogPath: C:\\Other\\\n");
  const std::pair<const char*, std::string> cases[] = {
      {"SETLOGPATH;C:\\Other\\", "C:\\Other\\"},
      {"setlogpathx;a;b", "a;b\\"},
      {"SETLOGPATH;", "\\"},
      {"SETLOGPATH;/var/log", std::string("/var/log") + platform::PathSeparatorFor("/")},
      {"SETLOGPATH", ::testing::TempDir()},
  };
  for (const auto& [command, expected] : cases) {
    Send(command);
    EXPECT_EQ(path(), expected) << command;
  }
}

TEST_F(CommandServerTest, TheLogModeIsAnEventAndAMutexForOthers) {
  Serve();
  using platform::NamedMutex;
  auto event = platform::NamedEvent::Open(kLogModeEvent);
  ASSERT_TRUE(event.valid());
  platform::NamedEvent* const events[] = {&event};
  const auto isSet = [&] {
    return platform::NamedEvent::WaitAny(events, nullptr, 0).status ==
           platform::NamedEvent::WaitResult::Status::kEvent;
  };
  EXPECT_FALSE(isSet());
  Send("STARTLOG");
  Send("STARTLOG");
  ExpectNoReplySoFar();
  EXPECT_TRUE(isSet());
  EXPECT_TRUE(NamedMutex::Open(kLogModeMutex).valid());
  Send("STOPLOGGING");
  ExpectNoReplySoFar();
  EXPECT_FALSE(isSet());
  EXPECT_FALSE(NamedMutex::Open(kLogModeMutex).valid());
}

TEST_F(CommandServerTest, RequestsOutsideTheLimitsGetNoReply) {
  Serve();
  auto message = *EncodeRequest({std::u16string(kInbox), "GETINFO"});
  const auto changed = [&](std::size_t offset, std::byte value) {
    auto copy = message;
    copy[offset] = value;
    return copy;
  };
  Write(changed(4, std::byte{2}));
  for (std::size_t size = 8; size < message.size(); size += 7)
    Write(std::span(message).first(size));
  // A reply name of 64 characters and more, and one that never ends.
  auto longName = message;
  for (std::size_t i = 8; i < 8 + 2 * 64; i += 2) longName[i] = std::byte{'a'};
  longName[8 + 2 * 64] = longName[9 + 2 * 64] = std::byte{0};
  Write(longName);
  std::fill(longName.begin() + 8, longName.begin() + 140, std::byte{'a'});
  Write(longName);
  // A command of 1024 characters, and one that never ends.
  std::vector<std::byte> longCommand(140 + 1'025, std::byte{'A'});
  std::copy_n(message.begin(), 140, longCommand.begin());
  Write(std::span(longCommand).first(1'000));
  longCommand.back() = std::byte{0};
  Write(longCommand);
  Write(std::vector<std::byte>(1'000'000));
  ExpectNoReplySoFar();
}

TEST_F(CommandServerTest, OnlyMailslotsAreAnswered) {
  Serve();
  const std::u16string_view names[] = {u"test_client",
                                       u"\\\\.\\pipe\\test_client",
                                       u"\\\\.\\mailslot\\",
                                       u"\\\\.\\mailslot\\..",
                                       u"\\\\.\\mailslot\\../mailslot/test_client",
                                       u"\\\\otherhost\\mailslot\\test_client",
                                       u"\\\\.\\mailslot\\a\\test_client",
                                       u"/tmp/x",
                                       u"\\\\.\\mailslot\\nobody"};
  for (const auto name : names) Send("GETVERSION", name);
  ExpectNoReplySoFar();
}

TEST_F(CommandServerTest, AnUnknownCommandThatDoesNotFitIsAnsweredEmpty) {
  Serve();
  EXPECT_EQ(Ask(std::string(1'006, 'x')).size(), 13u + 17u + 1'006u);
  EXPECT_EQ(Ask(std::string(1'007, 'x')), Header(13, 0, 1) + '\0');
}

TEST_F(CommandServerTest, ShortMessagesAreAnsweredWhereTheLastReplyWent) {
  Serve();
  Write(std::vector<std::byte>(4));
  const std::string text = std::string("UNKNOWN COMMAND: INVALID COMMAND") + '\0';
  EXPECT_EQ(NextReply(inbox_), Header(45, 0, 33) + text);
  Send("GETVERSION", u"");
  EXPECT_EQ(NextReply(default_).size(), 20u);
  Write({});
  EXPECT_EQ(NextReply(default_), Header(45, 0, 33) + text);
}

TEST_F(CommandServerTest, EndsByItselfWhenItCannotServe) {
  for (const auto fault : {platform::Fault::kSidAllocate, platform::Fault::kMailslotCreate}) {
    platform::ArmFault(fault, 1);
    ASSERT_TRUE(StartExchange(context_));
    EXPECT_TRUE(testing::WaitUntil([this] { return !context_.running; }));
    StopExchange(context_);
    platform::DisarmFaults();
  }
  Serve();
  CResponseList responses;
  CItemList items;
  ExchangeContext second;
  second.responseList = &responses;
  second.itemList = &items;
  ASSERT_TRUE(StartExchange(second));
  EXPECT_TRUE(testing::WaitUntil([&] { return !second.running; })) << "the name is taken";
  StopExchange(second);
  ExpectNoReplySoFar();
}

}  // namespace
}  // namespace talvorn
