// Each thread's life, again and again: once with its first allocation failing, once
// with its second, and so on for all of them. It may cost what was at hand at that
// moment, but neither the thread nor what comes after.
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "app/interface_threads.h"
#include "app/interface_watch.h"
#include "app/service_loop.h"
#include "devices/change_event.h"
#include "devices/static_devices.h"
#include "devices/status_frame.h"
#include "devices/status_query.h"
#include "devices/testing_items.h"
#include "discovery/multicast_receiver.h"
#include "discovery/multicast_request.h"
#include "exchange/command_server.h"
#include "exchange/messages/messages.h"
#include "platform/fault_injection.h"
#include "platform/mailslot.h"
#include "platform/named_object.h"
#include "platform/settings_store.h"
#include "support/completed.h"
#include "support/debug_trace.h"
#include "support/settings.h"
#include "testing/fake_clock.h"
#include "testing/scratch_machine.h"
#include "testing/wait_until.h"

namespace {

// The thread's allocation that fails, counted from 0; none when negative.
thread_local long failingAllocation = -1;
std::atomic<int> failures{0};

void* Allocate(std::size_t size) noexcept {
  if (failingAllocation >= 0 && failingAllocation-- == 0) {
    ++failures;
    return nullptr;
  }
  return std::malloc(size);
}

void* AllocateOrThrow(std::size_t size) {
  if (void* const memory = Allocate(size)) return memory;
  throw std::bad_alloc();
}

// Inlined, it would seem to the compiler to free what another allocator gave.
[[gnu::noinline]] void Free(void* memory) noexcept { std::free(memory); }

}  // namespace

void* operator new(std::size_t size) { return AllocateOrThrow(size); }
void* operator new[](std::size_t size) { return AllocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void operator delete(void* memory) noexcept { Free(memory); }
void operator delete[](void* memory) noexcept { Free(memory); }
void operator delete(void* memory, std::size_t) noexcept { Free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { Free(memory); }

namespace talvorn {
namespace {

using testing::Address;
using testing::WaitUntil;

// Lives `life` again and again with one more allocation before the one that fails,
// as it is told, until there was none to fail in the last `batch` of them.
void WithEachAllocationFailing(int batch, const std::function<void(long)>& life) {
  constexpr long kFarTooMany = 10'000;
  for (long first = 0; first < kFarTooMany; first += batch) {
    SCOPED_TRACE(first);
    const int before = failures;
    life(first);
    failingAllocation = -1;
    if (::testing::Test::HasFailure()) return;
    if (failures == before) {
      EXPECT_GT(first, 0) << "nothing failed";
      return;
    }
  }
  ADD_FAILURE() << "it never ends";
}

// Starts a thread for each of `lives`, in which its allocation of the number `first`
// fails, in the next one's that behind it.
template <class Lives, class Procedure>
void StartEach(Lives& lives, long first, Procedure procedure) {
  for (auto& life : lives) {
    life.thread = platform::Thread::Start("life", [&life, procedure, failing = first++] {
      failingAllocation = failing;
      return procedure(life);
    });
  }
}

// Lives of `Life`, which take their time, side by side.
constexpr int kLives = 32;
template <class Life>
using Lives = std::array<Life, kLives>;

// Tells them to end, each by its flag.
template <class Lives, class RunFlagOf>
void EndEach(Lives& lives, RunFlagOf runFlagOf) {
  for (auto& life : lives) runFlagOf(life).Clear();
  for (auto& life : lives) life.thread.Join();
}

DeviceRecord Record(std::uint32_t itemOffset) {
  DeviceRecord record;
  record.length = kDeviceRecordSize;
  record.magic.Assign(kMagic);
  record.type.Assign(kTypeRecord);
  record.itemOffset = itemOffset;
  record.deviceIpv4.Assign("192.168.100.200");
  record.deviceSerial.Assign("7");
  record.hostAlias.Assign("a name of more than thirty-two characters");
  return record;
}

// `prefix` bytes, a record of device 7, and two items.
std::vector<std::byte> Answer(std::size_t prefix) {
  std::vector<std::byte> bytes(prefix + kDeviceRecordSize);
  EncodeDeviceRecord(Record(kDeviceRecordSize),
                     std::span(bytes).subspan(prefix).first<kDeviceRecordSize>());
  for (const auto& item : {testing::MakeItem(80, 1, 100), testing::MakeItem(80, 2)})
    bytes.insert(bytes.end(), item.begin(), item.end());
  return bytes;
}

class WithoutMemory : public ::testing::Test {
 protected:
  WithoutMemory() { DebugTrace().SetEnabled(0); }

  void WriteRegistry(const std::string& lines) const {
    std::ofstream(machine_.registry()) << lines;
  }

  testing::ScratchMachine machine_;
};

TEST_F(WithoutMemory, AReceiverLosesNothingButADatagramAndTheListsNothingButAnEntry) {
  using platform::Socket;
  const auto client = platform::NamedEvent::Create(ChangeEventName(7));
  ASSERT_TRUE(client.valid());
  const std::vector<std::byte> datagram = Answer(0);
  WithEachAllocationFailing(1, [&](long allocation) {
    testing::FakeClock clock;
    CResponseList responses(clock);
    CItemList items(clock);
    // Receives as many datagrams as it takes at once, and ends as the socket then seems to
    // be dead; later all that came in expires.
    const auto receive = [&] {
      MulticastReceiver receiver;
      receiver.expectedMagic = kMagic;
      receiver.responseList = &responses;
      receiver.itemList = &items;
      const long failing = std::exchange(failingAllocation, -1);
      receiver.socket = Socket::CreateReceiver(platform::AddressFamily::kIpv4);
      ASSERT_EQ(receiver.socket.Bind(platform::SocketAddress::Ipv4(Address("127.0.0.1"), 0)),
                platform::BindOutcome::kBound);
      Socket device =
          Socket::Create(platform::AddressFamily::kIpv4, platform::SocketType::kDatagram);
      for (std::size_t i = 0; i < platform::Datagrams::kMost; ++i) {
        ASSERT_EQ(device.SendTo(datagram, receiver.socket.LocalAddress()), datagram.size());
      }
      platform::ArmFault(platform::Fault::kReceive, 1, 1, EBADF);
      failingAllocation = failing;
      EXPECT_EQ(ThreadMulticastReceive(receiver), 0u);
      platform::DisarmFaults();
    };
    const auto sweep = [&] {
      (void)Completed([&] { responses.Sweep(); });
      (void)Completed([&] { items.Sweep(); });
    };
    failingAllocation = allocation;
    receive();
    const std::byte* snapshot = nullptr;
    (void)responses.GetResponses(snapshot, 4);
    (void)items.GetItems();
    clock.Advance(11'000);
    sweep();
    failingAllocation = -1;
    sweep();
    EXPECT_EQ(responses.count() + items.count(), 0u);
    receive();
    EXPECT_EQ(responses.GetResponses(snapshot, 4), 1u);
    EXPECT_EQ(items.count(), 2u);
    EXPECT_EQ(items.GetItems().size(), datagram.size() - kDeviceRecordSize + 2 * 4);
  });
}

TEST_F(WithoutMemory, ARequestThreadGoesOn) {
  OwnRequests ownRequests;
  CResponseList responses;
  CItemList items;
  // At the same time, since each takes its timers' first second.
  struct Life {
    ThreadItem item;
    platform::Thread thread;
  };
  WithEachAllocationFailing(kLives, [&](long first) {
    Lives<Life> lives;
    for (Life& life : lives) {
      life.item.id = Address("127.0.0.1");
      life.item.mask = Address("255.0.0.0");
      life.item.ipVersion = 4;
      life.item.responseList = &responses;
      life.item.itemList = &items;
      life.item.ownRequests = &ownRequests;
      life.item.running.Set();
      life.item.networkChanged.Set();
    }
    StartEach(lives, first, [](Life& life) { return ThreadMulticastRequest(life.item); });
    for (Life& life : lives) {
      // It takes the event in its first pass, and again in a later one.
      for (int pass = 0; pass < 2; ++pass) {
        const platform::Waitable* const changed[] = {&life.item.networkChanged};
        EXPECT_TRUE(WaitUntil([&] {
          return platform::WaitForAny(changed, 0) == platform::WaitStatus::kTimeout;
        })) << first + (&life - lives.data());
        life.item.networkChanged.Set();
      }
    }
    EndEach(
        lives, [](Life & life) -> auto& { return life.item.running; });
  });
}

TEST_F(WithoutMemory, TheInterfaceWatchMakesUpForItInItsNextPasses) {
  using testing::Adapter;
  using testing::Row;
  const InterfaceWatch::Ipv4Table tables[] = {{Row("10.0.0.1"), Row("10.0.0.2")},
                                              {Row("10.0.0.2"), Row("10.0.0.3")}};
  const InterfaceWatch::Ipv6Adapters adapters[] = {{Adapter(9), Adapter(12)}, {Adapter(12)}};
  const testing::Ids wanted = {Address("10.0.0.2"), Address("10.0.0.3"), 12};
  WithEachAllocationFailing(1, [&](long allocation) {
    WriteRegistry(
        "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Kestrow\\TAL-VORN\\Interfaces]\n\"10.0.0.2\"=dword:0\n");
    RunFlag serviceRuns;
    serviceRuns.Set();
    EventSource events;
    CResponseList responses;
    CItemList items;
    InterfaceWatch watch(events, responses, items, testing::RunUntilStopped, serviceRuns);
    const auto look = [&](int when) {
      auto table = tables[when];
      (void)Completed([&] { watch.WatchIpv6Interfaces(adapters[when]); });
      (void)Completed([&] { watch.WatchIpv4Interfaces(std::move(table)); });
    };
    failingAllocation = allocation;
    (void)Completed([&] {
      OpenEventSource(events, kSourceTalvorn);
      look(0);
    });
    for (int pass = 0; pass < 3; ++pass) (void)Completed([&] { look(1); });
    const long left = std::exchange(failingAllocation, -1);
    // A request that was put off takes a thread away once more.
    for (int pass = 0; pass < 4; ++pass) look(1);
    EXPECT_TRUE(testing::Runs(wanted));
    const auto key = platform::SettingsKey::Open(kInterfacesKey, platform::SettingsAccess::kRead);
    EXPECT_EQ(key.Number(u"10.0.0.2"), 1u) << "the request is served";
    failingAllocation = left;
    watch.ShutDownIpv4();
    watch.ShutDownIpv6();
    EXPECT_TRUE(testing::Runs({}));
  });
}

TEST_F(WithoutMemory, TheCommandServerLosesNothingButARequest) {
  auto replies = platform::Mailslot::Create(kDefaultReplyMailslot, nullptr);
  ASSERT_TRUE(replies.valid());
  const auto send = [](const std::string& command) {
    const auto request = EncodeRequest({{}, command});
    return request && platform::WriteMailslot(platform::kLocatorMailslot, *request, 0) ==
                          platform::MailslotWrite::kWritten;
  };
  // Whether this text, or any when it is empty, is among the replies that wait.
  const auto received = [&](std::string_view text) {
    bool found = false;
    platform::Message reply;
    while (replies.Take(reply, 64 << 10) != platform::Mailslot::Taken::kNone) {
      found = found || AsText(reply.bytes()).find(text) != std::string_view::npos;
    }
    return found;
  };
  const DeviceRecord record = Record(0);
  const auto item = testing::MakeItem(80, 1);
  WithEachAllocationFailing(1, [&](long allocation) {
    CResponseList responses;
    CItemList items;
    responses.Add(&record, 0);
    items.Add(7, *ParseItem(item));
    ExchangeContext context;
    context.responseList = &responses;
    context.itemList = &items;
    context.running.Set();
    context.thread = platform::Thread::Start("exchange", [&context, allocation] {
      failingAllocation = allocation;
      return ThreadExchange(context);
    });
    for (const char* const command :
         {"GETVERSION", "GETINFO", "GETITEMS", "SETLOGPATH;/a/path/that/is/long/enough",
          "GETLOGPATH", "STARTLOG", "STOPLOG", "SETLOGPATH", "nonsense that is long enough"}) {
      ASSERT_TRUE(WaitUntil([&] { return send(command); }));
    }
    const std::string last = "the last of life " + std::to_string(allocation);
    EXPECT_TRUE(WaitUntil([&] { return send(last) && received(last); }));
    StopExchange(context);
    (void)received("");
  });
}

// A device of one record and two items, which answers each who connects.
class StatusDevice {
 public:
  static constexpr const char* kAddress = "127.84.76.86";

  StatusDevice() {
    listener_ =
        platform::Socket::Create(platform::AddressFamily::kIpv4, platform::SocketType::kStream);
    running_.Set();
    listens_ = listener_.ClaimAddress() &&
               listener_.Bind(platform::SocketAddress::Ipv4(Address(kAddress), kStatusPort)) ==
                   platform::BindOutcome::kBound &&
               listener_.Listen(100);
    thread_ = platform::Thread::Start("device", [this] { return Serve(); });
  }
  ~StatusDevice() {
    running_.Clear();
    thread_.Join();
  }
  StatusDevice(const StatusDevice&) = delete;
  StatusDevice& operator=(const StatusDevice&) = delete;

  [[nodiscard]] bool listens() const { return listens_; }

 private:
  std::uint32_t Serve() {
    std::vector<std::byte> reply = Answer(kReplyRecordAt);
    ByteWriter writer(reply);
    writer.U32Big(static_cast<std::uint32_t>(reply.size()));
    writer.U32Big(kStatusReplyType);
    const platform::Waitable* const waitables[] = {&running_.cleared(), &listener_};
    while (running_) {
      (void)platform::WaitForAny(waitables, std::nullopt);
      if (platform::Socket peer = listener_.Accept(); peer.valid()) (void)peer.Send(reply);
    }
    return 0;
  }

  platform::Socket listener_;
  RunFlag running_;
  bool listens_ = false;
  platform::Thread thread_;
};

// Those who ask it, each for themselves.
struct AskingLife {
  AskingLife() {
    context.responses = &responses;
    context.items = &items;
    context.running.Set();
    device.address = Address(StatusDevice::kAddress);
    device.validity = 30'000;
    device.context = &context;
  }
  CResponseList responses;
  CItemList items;
  StaticDeviceContext context;
  StaticDevice device;
  platform::Thread thread;
};

TEST_F(WithoutMemory, AStatusQueryEnds) {
  StatusDevice server;
  ASSERT_TRUE(server.listens());
  WithEachAllocationFailing(kLives, [&](long first) {
    Lives<AskingLife> lives;
    StartEach(lives, first, [](AskingLife& life) {
      return ThreadDeviceStatus(life.device) + ThreadDeviceStatus(life.device);
    });
    for (AskingLife& life : lives) {
      life.thread.Join();
      EXPECT_EQ(life.responses.count(), 1u);
    }
  });
}

TEST_F(WithoutMemory, TheStaticDeviceWorkerGoesOnToItsNextCycle) {
  StatusDevice server;
  ASSERT_TRUE(server.listens());
  const std::string path = (machine_.root() / "devices.ini").string();
  std::ofstream(path) << "[a device whose name is long]\nIpAddress=" << StatusDevice::kAddress;
  WriteRegistry(
      "[HKEY_LOCAL_MACHINE\\Software\\Kestrow\\TAL-VORN\\Settings]\n"
      "\"TAL-VORN INI-File Static Devices\"=\"" +
      path + "\"\n\"Time Request Gap IFSTATIC\"=dword:1\n");
  WithEachAllocationFailing(kLives, [&](long first) {
    Lives<AskingLife> lives;
    StartEach(lives, first, [](AskingLife& life) { return DeviceByHostName(life.context); });
    for (auto& life : lives) EXPECT_TRUE(WaitUntil([&] { return life.responses.count() == 1; }));
    EndEach(
        lives, [](AskingLife & life) -> auto& { return life.context.running; });
  });
}

// Puts the calling thread, and those it starts, into a network of their own with one
// address that a locator uses. False without the right to.
bool EnterNetworkOfItsOwn() {
  return unshare(CLONE_NEWNET) == 0 &&
         system("ip link set lo up && ip addr add 10.0.0.1/24 dev lo") == 0;
}

TEST_F(WithoutMemory, TheServiceGoesOnUntilItIsToldToEnd) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  WriteRegistry(
      "[HKEY_LOCAL_MACHINE\\Software\\Kestrow\\TAL-VORN\\Settings]\n"
      "\"Time Network Changes\"=dword:1\n\"IPv6 Active\"=dword:1\n");
  struct Life {
    RunFlag running;
    platform::Thread thread;
  };
  constexpr long kAllocations = 3 * kLives;  // the start and the first looks have fewer
  std::atomic<int> endedByItself{0};
  for (long first = 0; first < kAllocations; first += kLives) {
    const int before = failures;
    Lives<Life> lives;
    for (Life& life : lives) life.running.Set();
    StartEach(lives, first, [&](Life& life) {
      const long failing = std::exchange(failingAllocation, -1);
      EXPECT_TRUE(EnterNetworkOfItsOwn());
      failingAllocation = failing;
      if (!Completed([&] { (void)ThreadServiceMain(life.running); }) || life.running)
        ++endedByItself;
      return 0u;
    });
    EXPECT_TRUE(WaitUntil([&] { return failures - before == kLives; }));
    EndEach(
        lives, [](Life & life) -> auto& { return life.running; });
  }
  EXPECT_EQ(endedByItself, 0);
}

}  // namespace
}  // namespace talvorn
