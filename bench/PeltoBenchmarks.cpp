// Benchmarks of the library's per-frame paths, each beside its floor: what the
// host's own calls cost when the library does nothing with them. The summary
// that main() prints after the run gives the ratios.
#include <chrono>
#include <cstdint>
#include <string>

#include <benchmark/benchmark.h>
#include <cutils/trace.h>
#include <utils/Timers.h>

#include "bench/BenchHost.h"
#include "bench/SummaryReporter.h"
#include "controller/PeltoController.h"

namespace android::bench {
namespace {

// Fails the benchmark if its timed loop wrote a log line: a steady path must
// not log, and the dropped lines would make it look cheaper than it is.
class NoLogGuard {
public:
    explicit NoLogGuard(benchmark::State& state) : mState(state), mStart(loggedLines()) {}
    ~NoLogGuard() {
        if (loggedLines() != mStart) {
            mState.SkipWithError("the timed loop logged");
        }
    }

private:
    benchmark::State& mState;
    const uint64_t mStart;
};

// Graphics tracing on for the life of a benchmark that asks for it.
class ScopedGraphicsTracing {
public:
    explicit ScopedGraphicsTracing(bool enabled) { setGraphicsTracing(enabled); }
    ~ScopedGraphicsTracing() { setGraphicsTracing(false); }
};

void compositeList(benchmark::State& state, bool traced) {
    ListModeRig rig(state.range(0), state.range(1));
    ScopedGraphicsTracing tracing(traced);
    NoLogGuard guard(state);
    for (auto _ : state) {
        rig.composite();
    }
}

void BM_CompositeList(benchmark::State& state) {
    compositeList(state, /*traced=*/false);
}

void BM_CompositeListTraced(benchmark::State& state) {
    compositeList(state, /*traced=*/true);
}

void BM_CompositeListFloor(benchmark::State& state) {
    ListModeRig rig(state.range(0), state.range(1));
    const auto traverse = rig.host.traverseVisibleBufferLayers();
    for (auto _ : state) {
        traverseBufferLayersFloor(traverse);
    }
}

void BM_ClockRead(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(systemTime(SYSTEM_TIME_MONOTONIC));
    }
}

// One counter event through this program's trace sink, to set apart from the
// traced benchmarks what the sink itself costs.
void BM_TraceCounterEvent(benchmark::State& state) {
    ScopedGraphicsTracing tracing(true);
    for (auto _ : state) {
        ATRACE_INT64("Pelto2-Q2QFps", 60);
    }
}

void BM_CompositeApi(benchmark::State& state) {
    ApiModeRig rig(state.range(0));
    NoLogGuard guard(state);
    for (auto _ : state) {
        rig.composite();
    }
}

void BM_CompositeApiFloor(benchmark::State& state) {
    ApiModeRig rig(state.range(0));
    const auto traverse = rig.host.traverseVisibleLayers();
    for (auto _ : state) {
        traverseLayersFloor(traverse);
    }
}

// Transactions run on the (256, 64) scene, whose decision is On.
constexpr size_t kTransactionRegistered = 256;
constexpr size_t kTransactionVisible = 64;

void setTransactionState(benchmark::State& state, bool traced) {
    ListModeRig rig(kTransactionRegistered, kTransactionVisible);
    const Transaction transaction(rig, state.range(0), static_cast<TargetAt>(state.range(1)));
    ScopedGraphicsTracing tracing(traced);
    NoLogGuard guard(state);
    for (auto _ : state) {
        transaction.run(*rig.controller);
    }
    state.SetLabel(targetAtName(static_cast<TargetAt>(state.range(1))));
}

void BM_SetTransactionState(benchmark::State& state) {
    setTransactionState(state, /*traced=*/false);
}

void BM_SetTransactionStateTraced(benchmark::State& state) {
    setTransactionState(state, /*traced=*/true);
}

void BM_SetTransactionStateFloor(benchmark::State& state) {
    ListModeRig rig(kTransactionRegistered, kTransactionVisible);
    const Transaction transaction(rig, state.range(0), static_cast<TargetAt>(state.range(1)));
    for (auto _ : state) {
        transaction.runFloor();
    }
    state.SetLabel(targetAtName(static_cast<TargetAt>(state.range(1))));
}

// One registration and one destroy of a layer that is not on screen, with
// `registered` layers in the registry.
void BM_RegisterDestroyChurn(benchmark::State& state) {
    ListModeRig rig(state.range(0), 64);
    const void* const churned = &rig;
    const std::string name = "com.example.churn/com.example.churn.MainActivity#1";
    for (auto _ : state) {
        rig.controller->registerLayer(churned, name);
        rig.controller->destroyLayer(churned);
    }
}

void BM_IsQ2QFull(benchmark::State& state) {
    ListModeRig rig(kTransactionRegistered, kTransactionVisible);
    const Transaction transaction(rig, 1, TargetAt::First);
    for (int i = 0; i < 64; ++i) {
        transaction.run(*rig.controller); // a measured average, so the full test runs
    }
    NoLogGuard guard(state);
    for (auto _ : state) {
        benchmark::DoNotOptimize(rig.controller->isQ2QFull());
    }
}

void BM_Dump(benchmark::State& state) {
    ListModeRig rig(state.range(0), 64);
    std::string out;
    for (auto _ : state) {
        out.clear();
        rig.controller->dump(out);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["bytes"] = static_cast<double>(out.size());
}

void listSizes(benchmark::internal::Benchmark* b) {
    b->ArgNames({"registered", "visible"});
    for (const auto& [registered, visible] :
         {std::pair{16, 8}, std::pair{64, 16}, std::pair{256, 64}, std::pair{1024, 256}}) {
        b->Args({registered, visible});
    }
}

void transactionCases(benchmark::internal::Benchmark* b) {
    b->ArgNames({"batch", "target"});
    b->Args({1, static_cast<int64_t>(TargetAt::First)});
    b->Args({1, static_cast<int64_t>(TargetAt::Absent)});
    for (const TargetAt at : {TargetAt::First, TargetAt::Last, TargetAt::Absent}) {
        b->Args({16, static_cast<int64_t>(at)});
    }
}

} // namespace

BENCHMARK(BM_CompositeList)->Apply(listSizes)->Apply(addMinMaxStatistics);
BENCHMARK(BM_CompositeListFloor)->Apply(listSizes)->Apply(addMinMaxStatistics);
BENCHMARK(BM_CompositeListTraced)
        ->ArgNames({"registered", "visible"})
        ->Args({256, 64})
        ->Apply(addMinMaxStatistics);
BENCHMARK(BM_ClockRead)->Apply(addMinMaxStatistics);
BENCHMARK(BM_TraceCounterEvent)->Apply(addMinMaxStatistics);
BENCHMARK(BM_CompositeApi)
        ->ArgName("visible")
        ->Arg(8)
        ->Arg(64)
        ->Arg(256)
        ->Apply(addMinMaxStatistics);
BENCHMARK(BM_CompositeApiFloor)
        ->ArgName("visible")
        ->Arg(8)
        ->Arg(64)
        ->Arg(256)
        ->Apply(addMinMaxStatistics);
BENCHMARK(BM_SetTransactionState)->Apply(transactionCases)->Apply(addMinMaxStatistics);
BENCHMARK(BM_SetTransactionStateFloor)->Apply(transactionCases)->Apply(addMinMaxStatistics);
BENCHMARK(BM_SetTransactionStateTraced)
        ->ArgNames({"batch", "target"})
        ->Args({1, static_cast<int64_t>(TargetAt::First)})
        ->Apply(addMinMaxStatistics);
BENCHMARK(BM_RegisterDestroyChurn)->ArgName("registered")->Arg(1024)->Apply(addMinMaxStatistics);
BENCHMARK(BM_IsQ2QFull)->Apply(addMinMaxStatistics);
BENCHMARK(BM_Dump)->ArgName("layers")->Arg(256)->Apply(addMinMaxStatistics);

} // namespace android::bench
