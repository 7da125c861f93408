// What a client program waits for the list of 10,000 devices.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <mutex>
#include <string>

#include "client/locator_client.h"
#include "exchange/command_server.h"
#include "platform/thread.h"
#include "support/debug_trace.h"

namespace {

using namespace talvorn;

constexpr std::uint32_t kDevices = 10'000;

// A command server in a runtime directory of its own.
class Server {
 public:
  Server() {
    ::setenv("TALVORN_RUNTIME_DIR", directory_.c_str(), 1);
    DebugTrace().SetEnabled(0);
    for (std::uint32_t serial = 1; serial <= kDevices; ++serial) {
      DeviceRecord record;
      record.deviceSerial.Assign(std::to_string(serial));
      record.deviceIpv4.Assign("10.0.0.1");
      (void)responses_.Add(&record, 0);
    }
    context_.responseList = &responses_;
    context_.itemList = &items_;
    (void)StartExchange(context_);
  }
  ~Server() {
    StopExchange(context_);
    std::filesystem::remove_all(directory_);
  }

  // The device that stands last in the list has another alias.
  void ChangeLast() {
    DeviceRecord record;
    record.deviceSerial.Assign(std::to_string(kDevices - 1));
    record.deviceIpv4.Assign("10.0.0.1");
    record.deviceAlias.Assign(std::to_string(++changes_));
    const std::lock_guard lock(responses_.lock);
    (void)responses_.Add(&record, 0);
  }

 private:
  std::uint32_t changes_ = 0;
  std::string pattern_ = "/tmp/talvorn-bench-XXXXXX";
  const std::string directory_ = ::mkdtemp(pattern_.data());
  CResponseList responses_;
  CItemList items_;
  ExchangeContext context_;
};

// The argument says whether the list has changed since the last answer.
void GetDevices(benchmark::State& state) {
  static Server server;
  static LocatorClient client{ClientOptions{}};
  while (client.GetVersion().status != ClientStatus::kOk) platform::SleepMs(1);  // it starts
  if (state.range(0) != 0) server.ChangeLast();
  for (auto _ : state) {
    const auto answer = client.GetDevices();
    if (answer.value.size() != kDevices) state.SkipWithError("no answer");
  }
}
BENCHMARK(GetDevices)
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1)
    ->Repetitions(300)
    ->ReportAggregatesOnly()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
