// Records as text: encode and decode MB/s of a list of 100,000 job-like
// records (class 102). No peer; the goal for decoding is at least 200 MB/s.
// Before timing, the list is checked to come back whole: encoded, decoded and
// encoded again, it gives the same text.
#include "support/packet_test_classes.h"

#include <zt/init.h>
#include <zt/log.h>
#include <zt/packets.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

#include "bench_support.h"

namespace {

constexpr uint32_t kRecords = 100000;

class Library {
 public:
  Library() {
    char tmpl[] = "/tmp/zt_packets_bench_XXXXXX";
    if (mkdtemp(tmpl) == nullptr || chdir(tmpl) != 0) std::abort();
    dir_ = tmpl;
    ZT_InitSubSystems();
    if (zt::test::register_packet_test_classes() != 0) std::abort();
    for (uint32_t i = 0; i < kRecords; ++i) {
      auto *r = static_cast<ZTTestRecord *>(std::calloc(1, sizeof(ZTTestRecord)));
      r->job_number = 100000 + i;
      r->name = strdup(("Poster " + std::to_string(i) + " final proof.pdf").c_str());
      r->owner = strdup("prepress operator");
      r->media = strdup("Glossy Photo Paper 260g 1118mm");
      r->copies = static_cast<int32_t>(i % 7 + 1);
      r->priority = static_cast<uint16_t>(i % 100);
      r->state = static_cast<uint8_t>(i % 5);
      r->width_mm = 841.0 + i % 13 * 0.5;
      r->height_mm = 1189.25;
      r->submitted = 1700000000 + i;
      r->ink_count = 8;
      r->ink_limits = static_cast<uint32_t *>(std::calloc(8, sizeof(uint32_t)));
      for (uint32_t k = 0; k < 8; ++k) r->ink_limits[k] = 60000 + k * 431 + i % 97;
      AddList(&list_, &r->node);
    }
  }
  ~Library() {
    ZTPacketFreeList(&list_, ZT_CLASS_TEST_RECORD);
    ZT_DeInitSubSystems();
    unlink((dir_ + "/errors.log").c_str());
    rmdir(dir_.c_str());
  }
  ZTListNode *list() const { return list_; }

 private:
  std::string dir_;
  ZTListNode *list_ = nullptr;
};

Library &library() {
  static Library lib;
  return lib;
}

// Encoded, decoded and encoded again, the list gives the same text.
bool round_trip(const Library &lib) {
  ZTPacketMemory *a = InitAllocPacketMemory(0), *b = InitAllocPacketMemory(0);
  bool ok = MakePacketDataFromList(a, lib.list(), ZT_CLASS_TEST_RECORD) == 0;
  a->read_offset = 0;
  ZTListNode *back = ok ? MakeListFromPacket(a, ZT_CLASS_TEST_RECORD) : nullptr;
  ok = ok && back != nullptr && MakePacketDataFromList(b, back, ZT_CLASS_TEST_RECORD) == 0 &&
       a->body_length == b->body_length && std::memcmp(a->data, b->data, a->body_length) == 0;
  ZTPacketFreeList(&back, ZT_CLASS_TEST_RECORD);
  FreePacketMemory(&a);
  FreePacketMemory(&b);
  return ok;
}

void BM_Packets_EncodeList(benchmark::State &state) {
  Library &lib = library();
  static const bool whole = round_trip(lib);
  if (!zt::bench::check(state, whole, "the list does not come back whole")) return;
  uint64_t bytes = 0;
  for (auto _ : state) {
    ZTPacketMemory *pm = InitAllocPacketMemory(0);
    if (MakePacketDataFromList(pm, lib.list(), ZT_CLASS_TEST_RECORD) != 0) state.SkipWithError("encode failed");
    bytes = pm->body_length;
    FreePacketMemory(&pm);
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes * state.iterations()));
  state.counters["MB_per_s"] = benchmark::Counter(static_cast<double>(bytes) * state.iterations() / 1e6,
                                                  benchmark::Counter::kIsRate);
}

void BM_Packets_DecodeList(benchmark::State &state) {
  Library &lib = library();
  static const bool whole = round_trip(lib);
  if (!zt::bench::check(state, whole, "the list does not come back whole")) return;
  ZTPacketMemory *pm = InitAllocPacketMemory(0);
  MakePacketDataFromList(pm, lib.list(), ZT_CLASS_TEST_RECORD);
  for (auto _ : state) {
    pm->read_offset = 0;
    ZTListNode *back = MakeListFromPacket(pm, ZT_CLASS_TEST_RECORD);
    if (back == nullptr) state.SkipWithError("decode failed");
    state.PauseTiming();
    ZTPacketFreeList(&back, ZT_CLASS_TEST_RECORD);
    state.ResumeTiming();
  }
  const double mb = static_cast<double>(pm->body_length) * state.iterations() / 1e6;
  state.SetBytesProcessed(static_cast<int64_t>(pm->body_length * state.iterations()));
  state.counters["MB_per_s"] = benchmark::Counter(mb, benchmark::Counter::kIsRate);
  state.counters["goal_MB_per_s"] = 200;
  FreePacketMemory(&pm);
}

BENCHMARK(BM_Packets_EncodeList)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Packets_DecodeList)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  zt::bench::Results results;
  benchmark::RunSpecifiedBenchmarks(&results);
  benchmark::Shutdown();
  zt::bench::Table table("100,000 records as text (MB/s, medians; no peer)", "MB/s");
  table.row("encode list", results.value("BM_Packets_EncodeList", "MB_per_s"), 0, zt::bench::Goal::none());
  table.row("decode list", results.value("BM_Packets_DecodeList", "MB_per_s"), 0, zt::bench::Goal::at_least(200));
  table.print();
  return zt::bench::exit_code();
}
