// The Debian packages as an appliance gets them: made by debian/rules from this very build
// tree (KQ_DEB_BUILD_TREE, nothing is compiled again), checked by lintian, installed with dpkg
// into a private root (inside the test's own /etc overlay; the maintainer scripts run with
// DPKG_ROOT, as in a bootstrap), run, used by the integrator
// example built against them through pkg-config only, and purged again.
#include <sys/stat.h>

#include "labutil.h"

#if !defined(KQ_BUILD_DIR) || !defined(KQ_SOURCE_DIR) || !defined(KQ_PROJECT_VERSION) || !defined(KQ_SOVERSION)
#error "KQ_BUILD_DIR, KQ_SOURCE_DIR, KQ_PROJECT_VERSION and KQ_SOVERSION come from tests/CMakeLists.txt"
#endif

namespace {

std::string Trim(std::string text)
{
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

TEST(KqPackageLab, DebianPackagesPassLintianInstallServeLeaseAndPurge)
{
    LAB_REQUIRE("dpkg-buildpackage dh lintian cc pkg-config");
    lab::Sweep sweep;
    lab::TempDir dir;
    const std::string arch = Trim(lab::MustSh("dpkg --print-architecture"));
    const std::string multiarch = Trim(lab::MustSh("dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null"));
    const std::string version = KQ_PROJECT_VERSION, so = KQ_SOVERSION;
    const std::string libdir = "/usr/lib/" + multiarch;

    // debian/ is all the packaging needs beside the build tree.
    lab::MustSh("mkdir -p " + dir.File("src") + " && cp -r " KQ_SOURCE_DIR "/debian " + dir.File("src"));
    const int built = lab::Sh("cd " + dir.File("src") + " && KQ_DEB_BUILD_TREE=" KQ_BUILD_DIR
                              " dpkg-buildpackage -us -uc -b >" + dir.File("build.log") + " 2>&1");
    ASSERT_EQ(built, 0) << lab::Text(dir.File("build.log"));
    const std::vector<std::string> packages = {"libkqdynamic" + so, "libkqhost" + so, "libkqdynamic-dev", "kqagent"};
    std::string debs;
    for (const std::string &package : packages)
        debs += " " + dir.File(package + "_" + version + "_" + arch + ".deb");
    EXPECT_EQ(lab::MustSh("ls " + debs + " >/dev/null && echo present"), "present\n");

    // Not one error or warning (each override in debian/ says why); info tags are advice.
    std::string lintian;
    EXPECT_EQ(lab::Sh("lintian --fail-on error,warning" + debs + " 2>" + dir.File("lintian.err"), &lintian), 0)
        << lintian << lab::Text(dir.File("lintian.err"));
    EXPECT_EQ(lintian, "");

    // Each package holds its own part: runtime libraries, development files, the agent.
    const std::string root = dir.File("root");
    lab::MustSh("mkdir -p " + root + "/var/lib/dpkg/info " + root + "/var/lib/dpkg/updates && touch " + root +
                "/var/lib/dpkg/status && dpkg --root=" + root + " --force-depends --force-script-chrootless -i" + debs);
    const struct { std::string Package; std::vector<std::string> Files; } contents[] = {
        {"libkqdynamic" + so, {libdir + "/libkqdynamic.so." + so, libdir + "/libkqdynamic.so." + version,
                               "/usr/share/doc/libkqdynamic" + so + "/copyright"}},
        {"libkqhost" + so, {libdir + "/libkqhost.so." + so, libdir + "/libkqhost.so." + version}},
        {"libkqdynamic-dev", {"/usr/include/kqdynamic/kqCtrlDynamic.h", "/usr/include/kqdynamic/kqHost.h",
                              "/usr/include/kqdynamic/kqHostLinux.h", "/usr/include/kqdynamic/kqDhcp.pb-c.h",
                              "/usr/include/kqdynamic/kqDynamicVersion.h", libdir + "/libkqdynamic.so",
                              libdir + "/libkqhost.so", libdir + "/pkgconfig/kqdynamic.pc", libdir + "/pkgconfig/kqhost.pc",
                              "/usr/share/kqdynamic/kqDhcp.proto"}},
        {"kqagent", {"/usr/bin/kqagent", "/lib/systemd/system/kqagent.service", "/etc/kqagent/kqhost.json",
                     "/usr/share/man/man8/kqagent.8.gz", "/usr/share/man/man5/kqagent.conf.5.gz",
                     "/usr/share/doc/kqagent/changelog.gz"}},
    };
    for (const auto &c : contents) {
        const std::string listed = lab::MustSh("dpkg --root=" + root + " -L " + c.Package);
        for (const std::string &file : c.Files)
            EXPECT_TRUE(lab::Has(listed, "\n" + file + "\n")) << c.Package;
    }
    for (const char *library : {"libkqdynamic", "libkqhost"})
        EXPECT_EQ(lab::MustSh("readelf -d " + root + libdir + "/" + library + ".so." + version + " | grep -o 'soname: .*'"),
                  "soname: [" + std::string(library) + ".so." + so + "]\n");
    const std::string depends = lab::MustSh("dpkg-deb -f " + dir.File("kqagent_" + version + "_" + arch + ".deb") + " Depends");
    for (const std::string &needed : std::vector<std::string>{"dnsmasq-base", "isc-dhcp-client", "iproute2", "libc6 (>= ",
                                                              "libkqdynamic" + so + " (>= " + version + ")",
                                                              "libkqhost" + so + " (>= " + version + ")"})
        EXPECT_TRUE(lab::Has(depends, needed));
    const std::string unit = lab::Text(root + "/lib/systemd/system/kqagent.service");
    EXPECT_TRUE(lab::Has(unit, "\nExecStart=/usr/bin/kqagent serve\n"));
    EXPECT_TRUE(lab::Has(unit, "\nEnvironment=KQ_HOST_CONFIG=/etc/kqagent/kqhost.json\n"));

    // The installed agent runs from the private root, reads the commented settings file that
    // it ships (every key at its default: no complaint) and serves.
    const std::string env = "env LD_LIBRARY_PATH=" + root + libdir + " ";
    const std::string agent = env + root + "/usr/bin/kqagent";
    EXPECT_EQ(lab::MustSh(agent + " --version"), "kqagent " + version + "\n");
    EXPECT_EQ(lab::MustSh(agent + " --config " + root + "/etc/kqagent/kqhost.json status 2>&1 | head -1"),
              "agent: not running (this command ran on its own)\n");
    lab::WriteFile(dir.File("kqhost.json"), "{\"dhcpConf\": \"" + dir.File("dhcp.conf") + "\"}");
    setenv("KQ_HOST_CONFIG", dir.File("kqhost.json").c_str(), 1);
    {
        auto served = lab::Serve(agent, dir.File("serve.log"));
        EXPECT_EQ(lab::MustSh(agent + " status | head -1"), "agent: running, pid " + std::to_string(served->Pid) + "\n");
        served->Stop();
        EXPECT_EQ(served->Status, std::optional<int>(0)) << lab::Text(dir.File("serve.log"));
    }
    unsetenv("KQ_HOST_CONFIG");

    // An integrator's C11 agent, built against the installed files through pkg-config only.
    const std::string pc = "PKG_CONFIG_PATH=" + root + libdir + "/pkgconfig pkg-config";
    EXPECT_EQ(lab::MustSh(pc + " --modversion kqdynamic kqhost"), version + "\n" + version + "\n");
    EXPECT_EQ(lab::MustSh("realpath $(" + pc + " --variable=protodir kqdynamic)/kqDhcp.proto"),
              root + "/usr/share/kqdynamic/kqDhcp.proto\n");
    std::string compiled;
    ASSERT_EQ(lab::Sh("cc -std=c11 -Wall -Wextra -pedantic -Werror " KQ_SOURCE_DIR "/examples/kqexample.c $(" + pc +
                          " --cflags --libs kqhost) -o " + dir.File("kqexample") + " 2>&1",
                      &compiled),
              0)
        << compiled;
    EXPECT_EQ(compiled, "");

    // Run once in the lab: its server gives a real client a real lease, and goes again.
    lab::Netns cli("lab-cli");
    lab::Veth("", "lan0", {"192.0.2.1/24"}, "lab-cli", "cli0");
    lab::WriteFile(dir.File("example.json"), "{\"dhcpConf\": \"" + dir.File("example/dhcp.conf") + "\", \"dhcpConfBak\": \"" +
                                                 dir.File("example/dhcp.conf.bak") + "\"}\n");
    const std::string example = env + dir.File("kqexample") + " " + dir.File("example.json");
    EXPECT_EQ(lab::MustSh(example + " add lan0 192.0.2.100 50 255.255.255.0 192.0.2.1"),
              "kqexample: module " + version + ", dhcp.conf " + dir.File("example/dhcp.conf") + "\nkqexample: add lan0: done\n");
    {
        lab::Dhclient client("lab-cli", "cli0", dir, "-4");
        const std::string address = client.Wait("fixed-address").value_or("none");
        EXPECT_TRUE(lab::InRange(address, "192.0.2.100", "192.0.2.149")) << address << lab::Text(client.Log);
        EXPECT_EQ(lab::LeaseField(client.Lease, "option routers"), "192.0.2.1");
    }
    EXPECT_TRUE(lab::Has(lab::MustSh(example + " load del lan0"), "kqexample: del lan0: done\n"));
    EXPECT_FALSE(lab::ReadFile("/var/run/vyr_dhcpd_lan0.pid"));
    EXPECT_EQ(lab::Text(dir.File("example/dhcp.conf")), "{ \"dhcps\": [ ] }");

    // Purged, nothing of the packages stays (the settings file is a conffile).
    std::string purge = "dpkg --root=" + root + " --force-depends --force-script-chrootless --purge";
    for (const std::string &package : packages)
        purge += " " + package;
    lab::MustSh(purge);
    EXPECT_EQ(lab::MustSh("find " + root + " -not -type d -not -path '*/var/lib/dpkg/*'"), "");
}

}  // namespace
