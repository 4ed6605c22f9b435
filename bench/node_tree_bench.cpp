// Building the block node tree of an open file and resolving its links.
//
// Each iteration makes a file record, adds N data-group-like nodes as if read from the file
// (each with three link fields: the next node of a chain, a node picked at random, and an
// empty link), takes the link positions from the images and then resolves every link once.
// The nodes arrive either in ascending file position or in a shuffled order. Releasing the
// tree is not timed.
//
// Building and resolving must grow like N log N at most, not like N^2: the work per node
// (time_per_node; build_ns_per_node and resolve_ns_per_node split it by phase) must not grow
// with N beyond what cache and TLB misses add once the tree (about 200 bytes a node) no
// longer fits in the caches.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <random>
#include <vector>

#include "frame/bytes.h"
#include "korvel.h"
#include "storage/block.h"
#include "storage/layout.h"
#include "storage/node.h"

namespace {

using namespace korvel;
namespace dg = layout::dg;

constexpr uint32_t kFirstPosition = 272;  // where the first node "was read from"

// The input of one run: for node i (in the order the nodes arrive) its file position and
// the positions its links point to. Made once per N and order, outside the timing.
struct Plan {
  std::vector<uint32_t> position;  // read position of the i-th node to arrive
  std::vector<uint32_t> next;      // its chain link
  std::vector<uint32_t> cross;     // its link to a node picked at random
};

Plan make_plan(std::size_t n, bool shuffled) {
  // Node k (in file order) sits at kFirstPosition + k * size; node k's chain link names
  // node k + 1 (the last one: 0), its cross link a random node.
  std::mt19937 random(12345);
  std::uniform_int_distribution<std::size_t> pick(0, n - 1);
  auto at = [](std::size_t k) { return static_cast<uint32_t>(kFirstPosition + k * dg::kSize); };
  std::vector<std::size_t> order(n);
  std::iota(order.begin(), order.end(), std::size_t{0});
  if (shuffled) std::shuffle(order.begin(), order.end(), random);
  Plan plan;
  plan.position.resize(n);
  plan.next.resize(n);
  plan.cross.resize(n);
  for (std::size_t i = 0; i < n; ++i) {
    const std::size_t k = order[i];
    plan.position[i] = at(k);
    plan.next[i] = k + 1 < n ? at(k + 1) : 0;
    plan.cross[i] = at(pick(random));
  }
  return plan;
}

void fail(benchmark::State& state, const char* what) {
  char text[200];
  std::snprintf(text, sizeof text, "%s (status %d)", what, mdfGetErrorCode());
  state.SkipWithError(text);
}

void BM_BuildAndResolve(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  const bool shuffled = state.range(1) != 0;
  const Plan plan = make_plan(n, shuffled);
  mdfClose();
  if (mdfOpen(nullptr) != 0) return fail(state, "mdfOpen failed");

  uint32_t fields[8];
  uint8_t model[dg::kSize] = {'D', 'G', dg::kSize, 0};
  const uint16_t link_count = link_fields(layout::kDG, model, dg::kSize, fields, 8);
  std::vector<Node*> added(n);
  uint64_t resolved = 0;
  // Wall time of the two phases over all iterations, reported per node.
  std::chrono::steady_clock::duration build_time{};
  std::chrono::steady_clock::duration resolve_time{};

  for (auto _ : state) {
    mdf_file* file = nullptr;
    if (create_file_record(&file) != 0) return fail(state, "create_file_record failed");
    NodeTree& tree = file->tree;
    const auto t0 = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < n; ++i) {
      Node* node = tree.add(layout::kDG, dg::kSize, plan.position[i], fields, link_count);
      if (node == nullptr) {
        release_file_record(file);
        return fail(state, "NodeTree::add failed");
      }
      uint8_t* b = node->image;
      b[0] = 'D';
      b[1] = 'G';
      store_le16(b + 2, static_cast<uint16_t>(dg::kSize));
      store_le32(b + dg::kNext, plan.next[i]);
      store_le32(b + dg::kFirstCg, plan.cross[i]);
      NodeTree::register_links(node);
      added[i] = node;
    }
    const auto t1 = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < n; ++i) {
      Node* owner = added[i];
      for (uint32_t field : {dg::kNext, dg::kFirstCg, dg::kTrigger}) {
        Node* target = resolve_link(tree, owner, field);
        resolved += target != nullptr;
      }
    }
    benchmark::DoNotOptimize(resolved);
    const auto t2 = std::chrono::steady_clock::now();
    build_time += t1 - t0;
    resolve_time += t2 - t1;
    state.PauseTiming();
    if (mdfGetErrorCode() != 0) {
      release_file_record(file);
      return fail(state, "resolving failed");
    }
    release_file_record(file);
    state.ResumeTiming();
  }
  // Every node has a cross link and all but one a chain link.
  const uint64_t expected = static_cast<uint64_t>(state.iterations()) * (2 * n - 1);
  if (resolved != expected) return fail(state, "wrong number of links resolved");
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
  // Seconds per node of the timed part (printed with an SI prefix, e.g. 75n = 75 ns).
  state.counters["time_per_node"] =
      benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate |
                                                     benchmark::Counter::kInvert);
  const double node_count = static_cast<double>(state.iterations()) * static_cast<double>(n);
  state.counters["build_ns_per_node"] =
      std::chrono::duration<double, std::nano>(build_time).count() / node_count;
  state.counters["resolve_ns_per_node"] =
      std::chrono::duration<double, std::nano>(resolve_time).count() / node_count;
  state.SetLabel(shuffled ? "shuffled order" : "position order");
  mdfClose();
}

BENCHMARK(BM_BuildAndResolve)
    ->ArgNames({"nodes", "shuffled"})
    ->ArgsProduct({{10000, 100000, 1000000}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
