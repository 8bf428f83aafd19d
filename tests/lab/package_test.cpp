// The Debian package as an appliance gets it: built by cpack from this build, installed with
// dpkg into a private root (inside the test's own /etc overlay), run, and removed again.
#include "labutil.h"

#if !defined(KQ_BUILD_DIR) || !defined(KQ_CPACK) || !defined(KQ_PROJECT_VERSION) || !defined(KQ_INSTALL_PREFIX)
#error "KQ_BUILD_DIR, KQ_CPACK, KQ_PROJECT_VERSION and KQ_INSTALL_PREFIX come from tests/CMakeLists.txt"
#endif

namespace {

TEST(KqPackageLab, DebInstallsRunsAndRemovesCleanly)
{
    LAB_REQUIRE("dpkg");
    lab::TempDir dir;
    const std::string root = dir.File("root"), deb = dir.File("pkg/kqagent_" KQ_PROJECT_VERSION "_amd64.deb");
    lab::MustSh(std::string(KQ_CPACK) + " -G DEB --config " KQ_BUILD_DIR "/CPackConfig.cmake -B " + dir.File("pkg"));
    // An empty dpkg database of its own; the dependencies are the machine's, not the root's.
    lab::MustSh("mkdir -p " + root + "/var/lib/dpkg/info " + root + "/var/lib/dpkg/updates && touch " + root +
                "/var/lib/dpkg/status && dpkg --root=" + root + " --force-depends -i " + deb);
    const std::string listed = lab::MustSh("dpkg --root=" + root + " -L kqagent");
    const std::string prefix = KQ_INSTALL_PREFIX;  // /usr unless the build was told otherwise
    for (const std::string &file : {"\n" + prefix + "/bin/kqagent\n", "\n" + prefix + "/lib/systemd/system/kqagent.service\n",
                                     "\n" + prefix + "/share/man/man8/kqagent.8\n", "\n" + prefix + "/share/man/man5/kqagent.conf.5\n",
                                     "\n" + prefix + "/include/kqdynamic/kqCtrlDynamic.h\n", "\n" + prefix + "/include/kqdynamic/kqHost.h\n",
                                     "\n" + prefix + "/include/kqdynamic/kqDhcp.pb-c.h\n", std::string("/libkqdynamic.so\n"),
                                     std::string("/libkqhost.so\n"), std::string("/pkgconfig/kqdynamic.pc\n")})
        EXPECT_TRUE(lab::Has(listed, file));
    EXPECT_NE(lab::Text(root + prefix + "/lib/systemd/system/kqagent.service").find("ExecStart=" + prefix + "/bin/kqagent "),
              std::string::npos);
    EXPECT_EQ(lab::Sh("man -l " + root + prefix + "/share/man/man8/kqagent.8 >/dev/null 2>&1 || test ! -x /usr/bin/man"), 0);

    // The installed agent finds its libraries beside it, runs alone, and serves: ready,
    // answering through its control socket, and ended cleanly by SIGTERM.
    const std::string agent = root + prefix + "/bin/kqagent";
    EXPECT_EQ(lab::MustSh(agent + " --version"), "kqagent " KQ_PROJECT_VERSION "\n");
    lab::WriteFile(dir.File("kqhost.json"), "{\"dhcpConf\": \"" + dir.File("dhcp.conf") + "\"}");
    setenv("KQ_HOST_CONFIG", dir.File("kqhost.json").c_str(), 1);
    EXPECT_EQ(lab::MustSh(agent + " status | head -2"),
              "agent: not running (this command ran on its own)\ndesired state: " + dir.File("desired.json") + "\n");
    auto served = lab::Serve(agent, dir.File("serve.log"));
    EXPECT_EQ(lab::MustSh(agent + " status | head -1"), "agent: running, pid " + std::to_string(served->Pid) + "\n");
    served->Stop();
    EXPECT_EQ(served->Status, std::optional<int>(0)) << lab::Text(dir.File("serve.log"));
    unsetenv("KQ_HOST_CONFIG");

    lab::MustSh("dpkg --root=" + root + " --force-depends -r kqagent");
    EXPECT_EQ(lab::MustSh("find " + root + " -type f -not -path '*/var/lib/dpkg/*'"), "");
}

}  // namespace
