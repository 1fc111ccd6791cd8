// The queue between the encoders and a writing thread. The time of an item is that of a packet.
#include <benchmark/benchmark.h>

#include <thread>

#include "base/packetqueue.h"
#include "support/packets.h"

namespace {

constexpr int kRoom = 60;

void put_and_get(benchmark::State& state) {
  PacketQueue queue;
  AVPacket packet = meru_test::make_packet(meru_test::kVideoStream, 0, 4096);
  for (auto _ : state) {
    queue.put_block(&packet, kRoom, true);
    queue.get(&packet, true);
  }
  av_packet_unref(&packet);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(put_and_get)->Name("PacketQueue/one thread");

void between_threads(benchmark::State& state) {
  PacketQueue queue;
  std::thread writer([&] {
    AVPacket packet;
    while (queue.get(&packet, true) == 1) av_packet_unref(&packet);
  });
  const AVPacket source = meru_test::make_packet(meru_test::kVideoStream, 0, 4096);
  const PacketPtr packet(av_packet_alloc());
  for (auto _ : state) {
    av_packet_ref(packet.get(), &source);
    queue.put_block(packet.get(), kRoom, true);
  }
  queue.abort();
  writer.join();
  AVPacket used = source;
  av_packet_unref(&used);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(between_threads)->Name("PacketQueue/between two threads")->UseRealTime();

}  // namespace
