// The daemon link's frame codec: a process record encoded as the extension
// sends it, and a pack of them decoded as the daemon reads it.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "xpc/framecodec.h"

namespace {

using tarvex::itx::xpc::DictEntry;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;
using tarvex::itx::xpc::Value;
namespace transport = tarvex::itx::xpc::linux_platform;

transport::Frame startRecord() {
  Dictionary event;
  event.entries = {
      {"path", Value("/usr/bin/true")},
      {"cmd", Value("--version")},
      {"pid", Value(Number::ofUnsignedInt(4242))},
      {"sid", Value(Number::ofUnsignedInt(4294967295u))},
      {"uid", Value(Number::ofUnsignedInt(1000))},
      {"ppid", Value(Number::ofUnsignedInt(4241))},
      {"timestamp", Value(Number::ofUnsignedLongLong(48503506513470ull))},
  };
  return transport::CallFrame{"handleProcessStartEvent:", {Value(std::move(event))}, std::nullopt};
}

void BM_EncodeRecord(benchmark::State& state) {
  const transport::Frame frame = startRecord();
  std::string error;
  for (auto _ : state) benchmark::DoNotOptimize(transport::encodeFrame(frame, &error));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EncodeRecord);

void BM_DecodePack(benchmark::State& state) {
  std::string error;
  const std::string one = *transport::encodeFrame(startRecord(), &error);
  const std::vector<const std::string*> frames(static_cast<size_t>(state.range(0)), &one);
  const std::string pack = transport::packFrames(frames);
  for (auto _ : state) benchmark::DoNotOptimize(transport::decodeMessage(pack, &error));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_DecodePack)->Arg(1)->Arg(16);

}  // namespace
