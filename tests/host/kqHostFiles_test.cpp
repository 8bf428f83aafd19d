// Atomic file replacement, copying and whole-file reading of the reference host.
#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "hostTestUtil.h"
#include "kqHostLinux.h"

namespace {

using hosttest::Slurp;

// Scratch folders of these tests live under /etc.
struct TempDir : hosttest::TempDir {
    TempDir() : hosttest::TempDir("/etc") {}
};

std::set<std::string> Names(const std::string &dir)
{
    std::set<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
        while (struct dirent *e = readdir(d))
            if (std::string(e->d_name) != "." && std::string(e->d_name) != "..")
                names.insert(e->d_name);
        closedir(d);
    }
    return names;
}

mode_t Mode(const std::string &path)
{
    struct stat st {};
    stat(path.c_str(), &st);
    return st.st_mode & 07777;
}

TEST(HostFiles, WriteAndCopyReplaceWholeFilesAndLeaveNoTemporaries)
{
    TempDir dir;
    std::string bak = dir.path + "/agent/dhcp.conf.bak", conf = dir.path + "/agent/dhcp.conf";
    std::string first = "{ \"dhcps\": [ ] }\n", second(100000, 'x');

    ASSERT_EQ(KQ_WriteSyncWithFilePath(bak.c_str(), first.data(), first.size()), 0);  // folder made
    EXPECT_EQ(Slurp(bak), first);
    EXPECT_EQ(Mode(bak), 0644u);
    ASSERT_EQ(KQ_FileCopy(bak.c_str(), conf.c_str()), 0);
    EXPECT_EQ(Slurp(conf), first);

    chmod(conf.c_str(), 0600);
    ASSERT_EQ(KQ_WriteSyncWithFilePath(bak.c_str(), second.data(), second.size()), 0);
    ASSERT_EQ(KQ_FileCopy(bak.c_str(), conf.c_str()), 0);
    EXPECT_EQ(Slurp(conf), second);
    EXPECT_EQ(Mode(conf), 0600u) << "the replaced file's mode is kept";
    ASSERT_EQ(KQ_WriteSyncWithFilePath(conf.c_str(), "", 0), 0);
    EXPECT_EQ(Slurp(conf), "");
    for (const char *text : {"same size A", "same size A", "same size B", "same size"}) {  // unchanged: left alone
        ASSERT_EQ(KQ_WriteSyncWithFilePath(bak.c_str(), text, strlen(text)), 0);
        EXPECT_EQ(Slurp(bak), text);
    }
    EXPECT_EQ(Names(dir.path + "/agent"), (std::set<std::string>{"dhcp.conf", "dhcp.conf.bak"}));

    // Failures leave the target as it was and no temporary behind.
    std::string missing = dir.path + "/none";
    EXPECT_EQ(KQ_FileCopy(missing.c_str(), conf.c_str()), -ENOENT);
    EXPECT_EQ(KQ_FileCopy(dir.path.c_str(), conf.c_str()), -EISDIR);
    std::string asFolder = dir.path + "/agent";
    EXPECT_EQ(KQ_WriteSyncWithFilePath(asFolder.c_str(), "x", 1), -EISDIR);
    std::string underFile = conf + "/sub";
    EXPECT_EQ(KQ_WriteSyncWithFilePath(underFile.c_str(), "x", 1), -ENOTDIR);
    EXPECT_EQ(KQ_WriteSyncWithFilePath(nullptr, "x", 1), -EINVAL);
    EXPECT_EQ(KQ_WriteSyncWithFilePath(conf.c_str(), nullptr, 1), -EINVAL);
    EXPECT_EQ(Slurp(conf), "");
    EXPECT_EQ(Names(dir.path + "/agent"), (std::set<std::string>{"dhcp.conf", "dhcp.conf.bak"}));
}

// A writer killed half-way leaves nothing behind (the temporary has no name while it is
// written); what one killed between naming and renaming left goes with the first write into
// that folder, whatever its target; look-alike names stay.
TEST(HostFiles, KilledWritesLeaveNothingAndStaleTemporariesGoAtFirstWrite)
{
    TempDir dir;
    const std::string big = dir.path + "/big";
    pid_t writer = fork();
    if (writer == 0) {
        std::string text(32 << 20, 'x');
        for (;;)
            KQ_HostWriteFile(big.c_str(), text.data(), text.size(), 1);
    }
    ASSERT_GT(writer, 0);
    for (int i = 0; i < 1000 && access(big.c_str(), F_OK) != 0; ++i)  // killed in a later write
        usleep(10 * 1000);
    usleep(50 * 1000);
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    std::set<std::string> left = Names(dir.path);
    left.erase("big");
    EXPECT_TRUE(left.empty()) << *left.begin();

    const std::string conf = dir.path + "/sub/dhcp.conf";
    ASSERT_EQ(mkdir((dir.path + "/sub").c_str(), 0755), 0);
    const std::set<std::string> kept = {".dhcp.conf.Ab12Cd", ".dhcp.conf.kqtmp.short", ".dhcp.conf.kqtmp.x-y_z!",
                                        ".dhcp.conf.kqtmp.Ab12Cd7", "dhcp.conf.kqtmp.Ab12Cd"};
    for (const std::string &name : kept)
        std::ofstream(dir.path + "/sub/" + name) << "kept";
    for (const char *stale : {".dhcp.conf.kqtmp.Ab12Cd", ".vyr_dhcpd_lan1.conf.kqtmp.zzzzzz"})
        std::ofstream(dir.path + "/sub/" + stale) << "half";

    ASSERT_EQ(KQ_WriteSyncWithFilePath(conf.c_str(), "new", 3), 0);
    std::set<std::string> expected = kept;
    expected.insert("dhcp.conf");
    EXPECT_EQ(Names(dir.path + "/sub"), expected);
    EXPECT_EQ(Slurp(conf), "new");
}

TEST(HostFiles, AllocAndGetConfReadsWholeRegularFilesUpToTheLimit)
{
    TempDir dir;
    std::string text = "line one\nline two\n";
    std::string path = dir.path + "/conf";
    std::ofstream(path) << text;
    char *conf = static_cast<char *>(KQ_AllocAndGetConf(path.c_str()));
    ASSERT_NE(conf, nullptr);
    EXPECT_EQ(std::string(conf), text);
    KQ_FreeConf(conf);

    std::ofstream(dir.path + "/empty").flush();
    conf = static_cast<char *>(KQ_AllocAndGetConf((dir.path + "/empty").c_str()));
    ASSERT_NE(conf, nullptr);
    EXPECT_STREQ(conf, "");
    KQ_FreeConf(conf);

    std::string limit = dir.path + "/limit", over = dir.path + "/over";
    std::ofstream(limit).close();
    std::ofstream(over).close();
    ASSERT_EQ(truncate(limit.c_str(), 16 << 20), 0);
    ASSERT_EQ(truncate(over.c_str(), (16 << 20) + 1), 0);
    conf = static_cast<char *>(KQ_AllocAndGetConf(limit.c_str()));
    EXPECT_NE(conf, nullptr);
    KQ_FreeConf(conf);
    for (std::string bad : {over, dir.path, dir.path + "/none", std::string("/dev/zero")})
        EXPECT_EQ(KQ_AllocAndGetConf(bad.c_str()), nullptr) << bad;
    KQ_FreeConf(nullptr);
}

}  // namespace
