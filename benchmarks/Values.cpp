#include <benchmark/benchmark.h>
#include <json/json.h>

#include <utility>
#include <vector>

#include "FCESGProgramInfo.h"
#include "Floor.h"
#include "Guide.h"
#include "IPCS/ESGMessageBuffer.h"
#include "Interleave.h"

namespace {

constexpr int kItems = 10000;
constexpr int kMillion = 1000000;

void Push(ESGMessageBuffer& buffer, int items) {
  for (int i = 0; i < items; ++i) {
    buffer.PushInt(i);
  }
}

void Pop(ESGMessageBuffer& buffer) {
  for (int i = 0; i < kItems; ++i) {
    benchmark::DoNotOptimize(buffer.PopInt());
  }
}

/// Operations at the end of a buffer with a million integers, against one that is nearly empty.
void BufferPush(benchmark::State& state) {
  ESGMessageBuffer full;
  int moves = 0;
  for (const char* bytes = nullptr; full.GetFullBufferSize() < kMillion * sizeof(int);) {
    full.PushInt(1);
    moves += std::exchange(bytes, full.GetAsCStr(0)) != full.GetAsCStr(0) ? 1 : 0;
  }
  ESGMessageBuffer empty;
  Interleave(state, {1, kItems}, {{"million", [&] { Push(full, kItems); }}, {"empty", [&] {
                                                                               empty.Clean();
                                                                               Push(empty, kItems);
                                                                             }}});
  state.counters["reallocations"] = moves;
}
BENCHMARK(BufferPush)->Iterations(15);

void BufferPop(benchmark::State& state) {
  constexpr int kRounds = 15;
  ESGMessageBuffer full;
  Push(full, kMillion);
  ESGMessageBuffer few;
  Push(few, kItems);
  std::vector<ESGMessageBuffer> fresh(kRounds + 1, few);
  auto next = fresh.begin();
  Interleave(state, {1, kItems},
             {{"million", [&] { Pop(full); }}, {"empty", [&] { Pop(*next++); }}});
}
BENCHMARK(BufferPop)->Iterations(15);

Json::Value Programme() { return hand::Parse(guide::Present()); }

void RecordToJson(benchmark::State& state) {
  Json::Value source = Programme();
  FCESGProgramInfo programme;
  FCESGProgramInfo::FromJson(source, programme);
  for ([[maybe_unused]] auto round : state) {
    Json::Value target;
    benchmark::DoNotOptimize(FCESGProgramInfo::ToJson(programme, target));
  }
}
BENCHMARK(RecordToJson);

void RecordFromJson(benchmark::State& state) {
  Json::Value source = Programme();
  FCESGProgramInfo programme;
  for ([[maybe_unused]] auto round : state) {
    benchmark::DoNotOptimize(FCESGProgramInfo::FromJson(source, programme));
  }
}
BENCHMARK(RecordFromJson);

}  // namespace
