// A real add (module and reference host: the interface's dnsmasq killed and started again)
// against a bare dnsmasq start with the same configuration file and command line. Needs
// its own network namespace (scripts/isolate --net): it creates a veth pair there.
#include <benchmark/benchmark.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "kqBenchRequests.h"

namespace {

constexpr char kDir[] = "/run/kqbench";
constexpr char kIfName[] = "kqb0";
constexpr char kPidFile[] = "/var/run/vyr_dhcpd_kqb0.pid";
// The line the module runs for this interface in zone 0.
constexpr char kDnsmasqLine[] =
    "/usr/sbin/dnsmasq -K --conf-file=/etc/vyr_dhcpd_kqb0.conf --dhcp-leasefile=/etc/vyr_dhcpd_kqb0.leases "
    "--port=0 --pid-file=/var/run/vyr_dhcpd_kqb0.pid -z";

kqbench::Request &Target()
{
    static kqbench::Request request(kIfName, kqbench::Request::Ipv4Only);
    return request;
}

// Kills the interface's dnsmasq as the module's server stop does: SIGKILL to the pid in
// its pid file, then the pid file goes.
void KillRunning()
{
    std::ifstream in(kPidFile);
    long pid = 0;
    if (in >> pid && pid > 0)
        kill(static_cast<pid_t>(pid), SIGKILL);
    std::remove(kPidFile);
}

void BM_RealAdd(benchmark::State &State)
{
    kqbench::Request &target = Target();
    for (auto _ : State) {
        target.Change();
        KQ_ERR_T ret = KQCtrl_ConfigDynamicAdd(target.get());
        if (ret != 0) {
            State.SkipWithError(("add failed: " + std::to_string(ret)).c_str());
            break;
        }
    }
}

void BM_BareDnsmasqStart(benchmark::State &State)
{
    char line[sizeof(kDnsmasqLine)];
    for (auto _ : State) {
        KillRunning();
        snprintf(line, sizeof(line), "%s", kDnsmasqLine);
        KQ_ERR_T ret = KQ_CmdExec(line);
        if (ret != 0) {
            State.SkipWithError(("dnsmasq failed: " + std::to_string(ret)).c_str());
            break;
        }
    }
}

BENCHMARK(BM_RealAdd)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BareDnsmasqStart)->Unit(benchmark::kMillisecond)->UseRealTime();

int Run(const std::string &Line)
{
    int status = system(Line.c_str());
    if (status != 0)
        fprintf(stderr, "failed: %s\n", Line.c_str());
    return status;
}

}  // namespace

int main(int argc, char **argv)
{
    kqbench::RequireIsolation(argv[0]);
    kqbench::WriteHostSettings(kDir, std::string("{ \"ifname\": \"") + kIfName + "\", \"vpnId\": 0 }");
    if (Run(std::string("ip link add ") + kIfName + " type veth peer name " + kIfName + "p") != 0 ||
        Run(std::string("ip addr add 192.0.2.1/24 dev ") + kIfName) != 0 ||
        Run(std::string("ip link set ") + kIfName + "p up") != 0 ||
        Run(std::string("ip link set ") + kIfName + " up") != 0)
        return 2;
    // The first add writes the configuration file that the bare start uses too.
    if (KQCtrl_ConfigDynamicAdd(Target().get()) != 0) {
        fprintf(stderr, "first add of %s failed\n", kIfName);
        return 2;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    // No dnsmasq may outlive the run: it would keep the namespace alive.
    KillRunning();
    KQCtrl_ConfigDynamicDel(Target().get());
    Run(std::string("ip link del ") + kIfName);
    return 0;
}
