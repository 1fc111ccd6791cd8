// The queue that pushed packets wait in, and the stream of bytes that is read from it.
#include <benchmark/benchmark.h>

#include <thread>
#include <vector>

#include "raw_packets/packet_stream_queue.h"

namespace {

constexpr int kRoom = 500;
constexpr int kPacketBytes = 4096;

void push_and_pop(benchmark::State& state) {
  nuv::BlockingQueue<int> queue;
  int value = 0;
  for (auto _ : state) {
    queue._push_back_(value, kRoom, true, 0);
    queue._get_front_(value, true, 0, true);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(push_and_pop)->Name("BlockingQueue/one thread");

void between_threads(benchmark::State& state) {
  nuv::BlockingQueue<int> queue;
  std::thread consumer([&] {
    int value = 0;
    while (queue._get_front_(value, true, 0, true) == nuv::kQueueDone) benchmark::DoNotOptimize(value);
  });
  for (auto _ : state) queue._push_back_(1, kRoom, true, 0);
  queue.abort();
  consumer.join();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(between_threads)->Name("BlockingQueue/between two threads")->UseRealTime();

/// A packet's whole way: a block of the pool, the queue, the reader's buffer.
void read_as_stream(benchmark::State& state) {
  nuv::MRPacketQueue queue(nullptr);
  std::vector<unsigned char> buffer(kPacketBytes);
  for (auto _ : state) {
    queue._push_back_(queue.pool()->mr_malloc(kPacketBytes), kRoom, true, 0);
    queue._read_nbytes_(buffer.data(), kPacketBytes, true, 0);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * kPacketBytes);
}
BENCHMARK(read_as_stream)->Name("MRPacketQueue/push and read 4 KiB");

}  // namespace
