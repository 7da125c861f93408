// Cost of asking for the named objects of clients, which mostly do not exist: the locator
// asks for an event with every change of an item, and for a mutex every second.
#include <benchmark/benchmark.h>

#include "platform/named_object.h"

namespace {

using namespace talvorn::platform;

constexpr char16_t kName[] = u"Global\\TALVORN_BENCH";

void AskForAbsentEvent(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(NamedEvent::Open(kName).valid());
}
BENCHMARK(AskForAbsentEvent);

void AskForAbsentMutex(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(NamedMutex::Open(kName).valid());
}
BENCHMARK(AskForAbsentMutex);

void AskForHeldMutex(benchmark::State& state) {
  const NamedMutex held = NamedMutex::Create(kName);
  for (auto _ : state) benchmark::DoNotOptimize(NamedMutex::Open(kName).valid());
}
BENCHMARK(AskForHeldMutex);

}  // namespace

BENCHMARK_MAIN();
