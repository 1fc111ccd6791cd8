// The blocks that pushed packets are copied to, against the system's own.
#include "raw_packets/mem_pool.h"

#include <benchmark/benchmark.h>

#include <cstdlib>

namespace {

void take_and_give_back(benchmark::State& state) {
  nuv::MRMemPool pool;
  for (auto _ : state) {
    nuv::MRMemNode* node = pool.mr_malloc(static_cast<int>(state.range(0)));
    benchmark::DoNotOptimize(node->data);
    nuv::release_node(node);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(take_and_give_back)->Name("MRMemPool")->Arg(400)->Arg(20000)->Arg(200000);

void system_memory(benchmark::State& state) {
  for (auto _ : state) {
    void* block = std::malloc(static_cast<size_t>(state.range(0)));
    benchmark::DoNotOptimize(block);
    std::free(block);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(system_memory)->Name("malloc")->Arg(400)->Arg(20000)->Arg(200000);

}  // namespace
