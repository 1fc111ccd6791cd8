// Base64, in which the side index holds the encoders' parameters: on the writer's and on the repair's side.
#include "AVSnapshot/base64.h"

#include <benchmark/benchmark.h>

#include <string>

#include "MVRepair/restore/nuv_base64.h"

namespace {

std::string some_bytes(int64_t size) {
  std::string bytes(static_cast<size_t>(size), '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 + i / 256);
  return bytes;
}

void encode(benchmark::State& state) {
  const std::string bytes = some_bytes(state.range(0));
  std::string text;
  for (auto _ : state) {
    Base64::Encode(bytes, text);
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(encode)->Name("Base64/encode for the index")->Arg(48)->Arg(65536);

void encode_repaired(benchmark::State& state) {
  const std::string bytes = some_bytes(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(nuv::Base64::encode(bytes));
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(encode_repaired)->Name("Base64/encode in the repair")->Arg(48)->Arg(65536);

void decode(benchmark::State& state) {
  const std::string bytes = some_bytes(state.range(0));
  const std::string text = nuv::Base64::encode(bytes);
  if (nuv::Base64::decode(text) != bytes) state.SkipWithError("what is decoded is not what was encoded");
  for (auto _ : state) benchmark::DoNotOptimize(nuv::Base64::decode(text));
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(decode)->Name("Base64/decode in the repair")->Arg(48)->Arg(65536);

}  // namespace
