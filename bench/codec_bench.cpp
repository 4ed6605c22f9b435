// The cost of one value's decoding and conversion, apart from the record cursor:
//  - physical value: a 16-bit Intel integer at byte 3 of 32-byte records with a linear rule,
//    through the single-value decoder that derives layout and rule at every value
//    (decode_phy) and through a channel's prepared codec (decode_field);
//  - text formula: a type-10 rule, through to_physical (the text taken at every value) and
//    through the prepared rule (the text compiled once).
// Items are values. Each benchmark runs its kernel_* function over 4096 values per iteration,
// storing each value into an array (as the channel functions store into the caller's
// variable; no chain from one value to the next bounds the loop), so that an instruction count of that function alone (valgrind --tool=callgrind
// --toggle-collect='*kernel_*' ... --benchmark_min_time=0, one iteration) divided by 4096 is
// the instructions per value, whatever the machine's load.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "channel/decode.h"
#include "channel/decode_array.h"
#include "convert/conversion.h"
#include "frame/bytes.h"
#include "korvel.h"
#include "storage/layout.h"

namespace {

namespace layout = korvel::layout;

constexpr std::size_t kRecordSize = 32;
constexpr std::size_t kRecords = 4096;

// A CN image of 228 bytes: bits at `first_bit`, `bits` bits of `data_type`.
std::vector<uint8_t> cn_image(uint16_t first_bit, uint16_t bits, uint16_t data_type) {
  std::vector<uint8_t> b(layout::cn::kSize, 0);
  std::memcpy(b.data(), "CN", 2);
  korvel::store_le16(b.data() + 2, layout::cn::kSize);
  korvel::store_le16(b.data() + layout::cn::kFirstBit, first_bit);
  korvel::store_le16(b.data() + layout::cn::kBitCount, bits);
  korvel::store_le16(b.data() + layout::cn::kDataType, data_type);
  return b;
}

// A CC image with its in-memory extra: a linear rule, or a text formula.
std::vector<uint8_t> cc_image(uint16_t type, std::span<const uint8_t> params) {
  const uint32_t size = layout::cc::kSize + static_cast<uint32_t>(params.size());
  std::vector<uint8_t> b(size + layout::cc::kExtra, 0);
  std::memcpy(b.data(), "CC", 2);
  korvel::store_le16(b.data() + 2, static_cast<uint16_t>(size));
  korvel::store_le16(b.data() + layout::cc::kType, type);
  korvel::store_le16(b.data() + layout::cc::kCount, type == MDF_CC_FRM_LIN ? 2 : 0);
  std::memcpy(b.data() + layout::cc::kParams, params.data(), params.size());
  return b;
}

std::vector<uint8_t> linear_rule() {
  uint8_t p[16];
  korvel::store_f64(p, -10.0);    // offset
  korvel::store_f64(p + 8, 0.5);  // factor
  return cc_image(MDF_CC_FRM_LIN, p);
}

std::vector<uint8_t> formula_rule(const std::string& text) {
  std::vector<uint8_t> p(text.begin(), text.end());
  p.push_back(0);
  return cc_image(MDF_CC_FRM_TXT, p);
}

std::vector<uint8_t> records() {
  std::vector<uint8_t> r(kRecords * kRecordSize);
  for (std::size_t i = 0; i < r.size(); ++i) r[i] = static_cast<uint8_t>(i * 7 + 3);
  return r;
}

const std::vector<uint8_t> kCn = cn_image(24, 16, MDF_DT_UINT);

// The rule images are not const: the unprepared conversion once took a mutable image.
[[gnu::noinline]] void kernel_physical_unprepared(const std::vector<uint8_t>& data,
                                                  std::vector<uint8_t>& rule, double* out) {
  for (std::size_t r = 0; r < kRecords; ++r) {
    korvel::decode_phy({data.data() + r * kRecordSize, kRecordSize}, kCn.data(), rule.data(),
                       out + r);
  }
}

[[gnu::noinline]] void kernel_formula_unprepared(std::vector<uint8_t>& rule, double* out) {
  for (std::size_t r = 0; r < kRecords; ++r) {
    korvel::to_physical(rule.data(), static_cast<double>(r), out + r);
  }
}

#ifndef KORVEL_CODEC_BENCH_BASELINE
[[gnu::noinline]] void kernel_physical_prepared(const std::vector<uint8_t>& data,
                                                const korvel::ArrayPlan& plan, double* out) {
  for (std::size_t r = 0; r < kRecords; ++r) {
    korvel::decode_field(plan, data.data() + r * kRecordSize + plan.byte_offset, out + r);
  }
}

[[gnu::noinline]] void kernel_formula_prepared(const korvel::PreparedRule& rule, double* out) {
  for (std::size_t r = 0; r < kRecords; ++r) {
    korvel::to_physical_prepared(rule, static_cast<double>(r), out + r);
  }
}
#endif

void BM_PhysicalUnprepared(benchmark::State& state) {
  auto rule = linear_rule();
  const auto data = records();
  std::vector<double> out(kRecords);
  for (auto _ : state) {
    kernel_physical_unprepared(data, rule, out.data());
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kRecords));
}
BENCHMARK(BM_PhysicalUnprepared);

const char* const kFormulas[] = {"2*X+1", "(X>100) ? SQRT(X)*0.5 : X/4+1",
                                 "0.001*x*x - 0.5*x + POW(2,3)"};

void BM_FormulaUnprepared(benchmark::State& state) {
  auto rule = formula_rule(kFormulas[state.range(0)]);
  state.SetLabel(kFormulas[state.range(0)]);
  std::vector<double> out(kRecords);
  for (auto _ : state) {
    kernel_formula_unprepared(rule, out.data());
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kRecords));
}
BENCHMARK(BM_FormulaUnprepared)->DenseRange(0, 2);

#ifndef KORVEL_CODEC_BENCH_BASELINE
void BM_PhysicalPrepared(benchmark::State& state) {
  const auto rule = linear_rule();
  const auto data = records();
  const korvel::ArrayPlan plan =
      korvel::plan_array(korvel::ValueKind::phy, kCn.data(), rule.data(), kRecordSize);
  std::vector<double> out(kRecords);
  for (auto _ : state) {
    kernel_physical_prepared(data, plan, out.data());
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kRecords));
}
BENCHMARK(BM_PhysicalPrepared);

void BM_FormulaPrepared(benchmark::State& state) {
  const auto rule = formula_rule(kFormulas[state.range(0)]);
  state.SetLabel(kFormulas[state.range(0)]);
  const korvel::PreparedRule prepared = korvel::prepare_rule(rule.data());
  std::vector<double> out(kRecords);
  for (auto _ : state) {
    kernel_formula_prepared(prepared, out.data());
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kRecords));
}
BENCHMARK(BM_FormulaPrepared)->DenseRange(0, 2);
#endif

}  // namespace

BENCHMARK_MAIN();
