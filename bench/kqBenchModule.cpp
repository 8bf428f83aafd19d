// The module's own cost at 1, 100 and 1000 interfaces: add (a change: the interface's
// dnsmasq restarted, the shared relay rebuilt, dhcp.conf rewritten), unchanged add, the
// dhcp.conf rewrite alone, delete, start-up load, and the registry's footprint.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "kqBenchHost.h"
#include "kqBenchRequests.h"
#include "kqCtrlDynamicInternal.h"

namespace {

using kqbench::Request;

constexpr char kDir[] = "/run/kqbench";
constexpr char kDhcpConf[] = "/run/kqbench/dhcp.conf";

std::vector<std::unique_ptr<Request>> g_requests;
size_t g_filled = 0;  // interfaces the registry holds, as added by Fill

Request &RequestAt(size_t Index)
{
    while (g_requests.size() <= Index) {
        unsigned i = static_cast<unsigned>(g_requests.size());
        g_requests.push_back(std::make_unique<Request>(i, Request::KindOf(i)));
    }
    return *g_requests[Index];
}

void ClearRegistry()
{
    kqbench::EmptyRegistry();
    g_filled = 0;
}

// The registry with interfaces 0..N-1, added through the entry point like a controller
// would; kept between benchmarks of the same size.
bool Fill(benchmark::State &State, size_t N)
{
    if (g_filled == N)
        return true;
    ClearRegistry();
    for (size_t i = 0; i < N; ++i) {
        KQ_ERR_T ret = KQCtrl_ConfigDynamicAdd(RequestAt(i).get());
        if (ret != 0) {
            State.SkipWithError(("add of " + std::string(RequestAt(i).IfName()) + " failed: " +
                                 std::to_string(ret)).c_str());
            return false;
        }
    }
    g_filled = N;
    return true;
}

// The interface that is added, re-added and deleted: the last one, a dual-stack server
// (N - 1 is a multiple of 3 for every size used).
Request &Target(size_t N) { return RequestAt(N - 1); }

long MinorFaults()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

// Page faults show when the allocator hands memory back to the kernel between calls and
// takes it again: time that no instruction count shows.
class FaultCounter {
public:
    explicit FaultCounter(benchmark::State &State) : m_state(State), m_start(MinorFaults()) {}
    ~FaultCounter()
    {
        if (m_state.iterations() > 0)
            m_state.counters["faults_per_op"] =
                static_cast<double>(MinorFaults() - m_start) / static_cast<double>(m_state.iterations());
    }

private:
    benchmark::State &m_state;
    long m_start;
};

void Counters(benchmark::State &State, size_t N)
{
    State.counters["interfaces"] = static_cast<double>(N);
}

void BM_Add(benchmark::State &State)
{
    const size_t n = static_cast<size_t>(State.range(0));
    if (!Fill(State, n))
        return;
    Request &target = Target(n);
    FaultCounter faults(State);
    for (auto _ : State) {
        target.Change();
        if (KQCtrl_ConfigDynamicAdd(target.get()) != 0) {
            State.SkipWithError("add failed");
            break;
        }
    }
    Counters(State, n);
}

void BM_AddUnchanged(benchmark::State &State)
{
    const size_t n = static_cast<size_t>(State.range(0));
    if (!Fill(State, n))
        return;
    Request &target = Target(n);
    size_t commands = kqbench::Record().Commands;
    FaultCounter faults(State);
    for (auto _ : State) {
        if (KQCtrl_ConfigDynamicAdd(target.get()) != 0) {
            State.SkipWithError("add failed");
            break;
        }
    }
    // Nothing changed, so the interface's dnsmasq was not restarted: only the shared relay's.
    State.counters["commands_per_add"] =
        static_cast<double>(kqbench::Record().Commands - commands) / static_cast<double>(State.iterations());
    Counters(State, n);
}

// The unchanged add against the work it cannot avoid, timed in turn within each iteration
// so that both see the same machine: the dhcp.conf rewrite, and the shared relay's reload
// that every add of any interface does (here: the relay add of the same message alone).
void BM_UnchangedAddVsRewrite(benchmark::State &State)
{
    using Clock = std::chrono::steady_clock;
    const size_t n = static_cast<size_t>(State.range(0));
    if (!Fill(State, n))
        return;
    Request &target = Target(n);
    double unchanged = 0, rewrite = 0, relayReload = 0;
    for (auto _ : State) {
        const auto t0 = Clock::now();
        KQ_ERR_T addRet = KQCtrl_ConfigDynamicAdd(target.get());
        const auto t1 = Clock::now();
        KQ_ERR_T rewriteRet = _KQCtrl_UpdateDynamicConfFile();
        const auto t2 = Clock::now();
        KQ_ERR_T relayRet = KQCtrl_ConfigDynamicRelayAdd(target.get());
        const auto t3 = Clock::now();
        if (addRet != 0 || rewriteRet != 0 || relayRet != 0) {
            State.SkipWithError("unchanged add, rewrite or relay reload failed");
            break;
        }
        unchanged += std::chrono::duration<double, std::milli>(t1 - t0).count();
        rewrite += std::chrono::duration<double, std::milli>(t2 - t1).count();
        relayReload += std::chrono::duration<double, std::milli>(t3 - t2).count();
        State.SetIterationTime(std::chrono::duration<double>(t3 - t0).count());
    }
    State.counters["unchanged_add_ms"] = benchmark::Counter(unchanged, benchmark::Counter::kAvgIterations);
    State.counters["rewrite_ms"] = benchmark::Counter(rewrite, benchmark::Counter::kAvgIterations);
    State.counters["relay_reload_ms"] = benchmark::Counter(relayReload, benchmark::Counter::kAvgIterations);
    Counters(State, n);
}

void BM_DocumentRewrite(benchmark::State &State)
{
    const size_t n = static_cast<size_t>(State.range(0));
    if (!Fill(State, n))
        return;
    FaultCounter faults(State);
    for (auto _ : State) {
        if (_KQCtrl_UpdateDynamicConfFile() != 0) {
            State.SkipWithError("rewrite failed");
            break;
        }
    }
    Counters(State, n);
}

void BM_Delete(benchmark::State &State)
{
    const size_t n = static_cast<size_t>(State.range(0));
    if (!Fill(State, n))
        return;
    Request &target = Target(n);
    FaultCounter faults(State);
    for (auto _ : State) {
        if (KQCtrl_ConfigDynamicDel(target.get()) != 0) {
            State.SkipWithError("delete failed");
            break;
        }
        State.PauseTiming();
        KQ_ERR_T ret = KQCtrl_ConfigDynamicAdd(target.get());
        State.ResumeTiming();
        if (ret != 0) {
            State.SkipWithError("add back failed");
            break;
        }
    }
    Counters(State, n);
}

void BM_Load(benchmark::State &State)
{
    const size_t n = static_cast<size_t>(State.range(0));
    if (!Fill(State, n))
        return;
    FaultCounter faults(State);
    for (auto _ : State) {
        State.PauseTiming();
        ClearRegistry();
        State.ResumeTiming();
        if (KQCtrl_LoadDynamicServiceConf(kDhcpConf) != 0) {
            State.SkipWithError("load failed");
            break;
        }
    }
    // The loaded records differ from added ones (no zone, no IPv6 mode): add afresh next time.
    ClearRegistry();
    Counters(State, n);
}

// What the registry keeps per interface: its host allocations, and all heap growth.
void BM_Footprint(benchmark::State &State)
{
    const size_t n = static_cast<size_t>(State.range(0));
    ClearRegistry();
    const long hostBefore = kqbench::Record().LiveBytes;
    const size_t heapBefore = mallinfo2().uordblks;
    if (!Fill(State, n))
        return;
    const long hostAfter = kqbench::Record().LiveBytes;
    const size_t heapAfter = mallinfo2().uordblks;
    for (auto _ : State)
        benchmark::DoNotOptimize(g_filled);
    State.counters["host_bytes_per_if"] = static_cast<double>(hostAfter - hostBefore) / static_cast<double>(n);
    State.counters["heap_bytes_per_if"] =
        static_cast<double>(static_cast<long>(heapAfter) - static_cast<long>(heapBefore)) / static_cast<double>(n);
    State.counters["node_size"] = sizeof(KQ_CTRL_DYNAMIC_SERVICE_CONF_NODE);
    Counters(State, n);
}

void Sizes(benchmark::internal::Benchmark *B)
{
    B->Arg(1)->Arg(100)->Arg(1000)->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_Add)->Apply(Sizes);
BENCHMARK(BM_AddUnchanged)->Apply(Sizes);
BENCHMARK(BM_DocumentRewrite)->Apply(Sizes);
BENCHMARK(BM_UnchangedAddVsRewrite)->Apply(Sizes)->UseManualTime();
BENCHMARK(BM_Delete)->Apply(Sizes);
BENCHMARK(BM_Load)->Apply(Sizes);
BENCHMARK(BM_Footprint)->Arg(1000)->Iterations(1)->Repetitions(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv)
{
    kqbench::RequireIsolation(argv[0]);
    kqbench::WriteHostSettings(kDir, "");
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    ClearRegistry();
    return 0;
}
