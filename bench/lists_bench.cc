// Cost of the two lists with 100,000 entries, and of the snapshots that clients get.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "devices/item_list.h"
#include "devices/response_list.h"
#include "support/byte_io.h"
#include "support/debug_trace.h"

namespace {

using namespace talvorn;

constexpr std::uint32_t kEntries = 100'000;

DeviceRecord MakeRecord(std::uint32_t serial) {
  std::array<char, 8> text{};
  std::snprintf(text.data(), text.size(), "%07u", serial % 10'000'000);
  DeviceRecord record;
  record.deviceSerial.Assign(text.data());
  record.deviceIpv4.Assign("10.0.0.1");
  record.deviceAlias.Assign("a device of the bench");
  return record;
}

// Serials in an order in which no network delivers them sorted.
std::vector<std::uint32_t> Shuffled(std::uint32_t count) {
  std::vector<std::uint32_t> serials(count);
  for (std::uint32_t i = 0; i < count; ++i) serials[i] = i;
  std::shuffle(serials.begin(), serials.end(), std::mt19937(1));
  return serials;
}

void ResponseListRefresh(benchmark::State& state) {
  CResponseList list;
  std::vector<DeviceRecord> records;
  for (const std::uint32_t serial : Shuffled(kEntries)) records.push_back(MakeRecord(serial));
  for (const DeviceRecord& record : records) list.Add(&record, 0);
  std::size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(list.Add(&records[next], 0));
    next = (next + 1) % records.size();
  }
}
BENCHMARK(ResponseListRefresh);

void ResponseListInsert(benchmark::State& state) {
  CResponseList list;
  std::vector<DeviceRecord> records;
  for (const std::uint32_t serial : Shuffled(10 * kEntries)) records.push_back(MakeRecord(serial));
  std::size_t next = 0;
  for (; next < kEntries; ++next) list.Add(&records[next], 0);
  for (auto _ : state) {
    list.Add(&records[next], 0);
    next = (next + 1) % records.size();
  }
}
BENCHMARK(ResponseListInsert)->Iterations(100'000);

void ResponseListSnapshot(benchmark::State& state) {
  CResponseList list;
  for (const std::uint32_t serial : Shuffled(static_cast<std::uint32_t>(state.range(0)))) {
    const DeviceRecord record = MakeRecord(serial);
    list.Add(&record, 0);
  }
  for (auto _ : state) {
    const std::byte* snapshot = nullptr;
    benchmark::DoNotOptimize(list.GetResponses(snapshot, 4));
  }
}
BENCHMARK(ResponseListSnapshot)->Arg(10'000)->Arg(kEntries)->Unit(benchmark::kMillisecond);

void ResponseListSweep(benchmark::State& state) {
  CResponseList list;
  for (const std::uint32_t serial : Shuffled(kEntries)) {
    const DeviceRecord record = MakeRecord(serial);
    list.Add(&record, 3'600'000);
  }
  for (auto _ : state) list.Sweep();
}
BENCHMARK(ResponseListSweep)->Unit(benchmark::kMillisecond);

class Items {
 public:
  Items() : bytes_(100) {
    ByteWriter writer(bytes_);
    writer.U32Big(100);
    writer.Zero(16);
    writer.U32Big(80);
  }
  // An item whose content is `number`.
  ItemView operator()(std::uint32_t number) {
    ByteWriter{std::span(bytes_).subspan(24)}.U32Big(number);
    return *ParseItem(bytes_);
  }

 private:
  std::vector<std::byte> bytes_;
};

void ItemListRefresh(benchmark::State& state) {
  CItemList list;
  Items items;
  for (std::uint32_t i = 0; i < kEntries; ++i) list.Add(i % 1'000, items(i));
  std::uint32_t next = 0;
  for (auto _ : state) {
    list.Add(next % 1'000, items(next));
    next = (next + 7'919) % kEntries;
  }
}
BENCHMARK(ItemListRefresh);

// A new item also looks for the change events that clients may have made.
void ItemListInsert(benchmark::State& state) {
  CItemList list;
  Items items;
  std::uint32_t next = 0;
  for (; next < kEntries; ++next) list.Add(next % 1'000, items(next));
  for (auto _ : state) {
    list.Add(next % 1'000, items(next));
    ++next;
  }
}
BENCHMARK(ItemListInsert)->Iterations(100'000);

}  // namespace

int main(int argc, char** argv) {
  DebugTrace().SetEnabled(0);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
