// Atomic file replacement, copying and whole-file reading of the reference host.
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include "hostTestUtil.h"

namespace {

using hosttest::Slurp;

std::set<std::string> Names(const std::string &dir)
{
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(dir))
        names.insert(entry.path().filename());
    return names;
}

unsigned Mode(const std::string &path)
{
    return static_cast<unsigned>(std::filesystem::status(path).permissions());
}

TEST(HostFiles, WriteAndCopyReplaceWholeFilesAndFailuresLeaveThemAsTheyWere)
{
    hosttest::TempDir dir("/etc");
    const std::string bak = dir.path + "/agent/dhcp.conf.bak", conf = dir.path + "/agent/dhcp.conf";
    std::string first = "{ \"dhcps\": [ ] }\n", second(100000, 'x');
    const long descriptors = hosttest::OpenDescriptors();
    ASSERT_EQ(KQ_WriteSyncWithFilePath(bak.c_str(), first.data(), first.size()), 0);  // folder made
    ASSERT_EQ(KQ_FileCopy(bak.c_str(), conf.c_str()), 0);
    EXPECT_EQ(Slurp(conf), first);
    EXPECT_EQ(Mode(conf), 0644u);
    chmod(conf.c_str(), 0600);
    ASSERT_EQ(KQ_WriteSyncWithFilePath(bak.c_str(), second.data(), second.size()), 0);
    ASSERT_EQ(KQ_FileCopy(bak.c_str(), conf.c_str()), 0);
    EXPECT_EQ(Slurp(conf), second);
    EXPECT_EQ(Mode(conf), 0600u) << "the replaced file's mode is kept";
    for (const char *text : {"same size A", "same size A", "same size B", "same size", ""}) {
        ASSERT_EQ(KQ_WriteSyncWithFilePath(conf.c_str(), text, strlen(text)), 0);
        EXPECT_EQ(Slurp(conf), text);
    }
    EXPECT_EQ((std::vector<int>{KQ_FileCopy((dir.path + "/none").c_str(), conf.c_str()),
                                KQ_FileCopy(dir.path.c_str(), conf.c_str()),
                                KQ_WriteSyncWithFilePath((dir.path + "/agent").c_str(), "x", 1),
                                KQ_WriteSyncWithFilePath((conf + "/sub").c_str(), "x", 1),
                                KQ_WriteSyncWithFilePath(nullptr, "x", 1), KQ_WriteSyncWithFilePath(conf.c_str(), nullptr, 1),
                                KQ_FileCopy(nullptr, conf.c_str()), KQ_FileCopy(bak.c_str(), nullptr)}),
              (std::vector<int>{-ENOENT, -EISDIR, -EISDIR, -ENOTDIR, -EINVAL, -EINVAL, -EINVAL, -EINVAL}));
    EXPECT_EQ(Slurp(conf), "");
    EXPECT_EQ(Names(dir.path + "/agent"), (std::set<std::string>{"dhcp.conf", "dhcp.conf.bak"}));
    EXPECT_EQ(hosttest::OpenDescriptors(), descriptors);
    // A relative path is written in its own folder, not in the root.
    const std::string cwd = std::filesystem::current_path();
    std::filesystem::current_path(dir.path);
    std::filesystem::create_directory("a");
    EXPECT_EQ(KQ_WriteSyncWithFilePath("a/rel", "r", 1), 0);
    std::filesystem::current_path(cwd);
    EXPECT_EQ(Slurp(dir.path + "/a/rel"), "r");
}

// A writer killed half-way leaves nothing behind (the temporary has no name while it is
// written); what one killed between naming and renaming left goes with the first write into
// that folder, whatever its target; look-alike names stay.
TEST(HostFiles, KilledWritesLeaveNothingAndStaleTemporariesGoAtFirstWrite)
{
    hosttest::TempDir dir("/etc");
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
    EXPECT_EQ(Names(dir.path), std::set<std::string>{"big"});

    std::set<std::string> kept = {".dhcp.conf.Ab12Cd", ".dhcp.conf.kqtmp.short", ".dhcp.conf.kqtmp.x-y_z!",
                                  ".dhcp.conf.kqtmp.Ab12Cd7", "dhcp.conf.kqtmp.Ab12Cd"};
    ASSERT_EQ(mkdir((dir.path + "/sub").c_str(), 0755), 0);
    for (const std::string &name : kept)
        std::ofstream(dir.path + "/sub/" + name) << "kept";
    for (const char *stale : {".dhcp.conf.kqtmp.Ab12Cd", ".vyr_dhcpd_lan1.conf.kqtmp.zzzzzz"})
        std::ofstream(dir.path + "/sub/" + stale) << "half";
    ASSERT_EQ(KQ_WriteSyncWithFilePath((dir.path + "/sub/dhcp.conf").c_str(), "new", 3), 0);
    kept.insert("dhcp.conf");
    EXPECT_EQ(Names(dir.path + "/sub"), kept);
}

TEST(HostFiles, AllocAndGetConfReadsWholeRegularFilesUpToTheLimit)
{
    hosttest::TempDir dir("/etc");
    const std::string text = dir.path + "/text", limit = dir.path + "/limit", over = dir.path + "/over";
    std::ofstream(text) << "line one\nline two\n";
    for (const std::string &path : {limit, over, dir.path + "/empty"})
        std::ofstream(path).flush();
    ASSERT_EQ(truncate(limit.c_str(), 16 << 20) | truncate(over.c_str(), (16 << 20) + 1), 0);
    struct { std::string path; const char *want; } cases[] = {  // null: refused
        {text, "line one\nline two\n"}, {dir.path + "/empty", ""}, {limit, ""},  // NUL bytes
        {over, nullptr}, {dir.path, nullptr}, {dir.path + "/none", nullptr}, {"/dev/zero", nullptr}};
    for (const auto &c : cases) {
        char *conf = static_cast<char *>(KQ_AllocAndGetConf(c.path.c_str()));
        EXPECT_EQ(conf ? std::string("read ") + conf : "refused", c.want ? std::string("read ") + c.want : "refused");
        KQ_FreeConf(conf);
    }
}

// One command's durable writes in a batch: dhcp.conf and its backup keep their old text on
// disk until the end, while the process reads and copies the kept text; the end writes the
// last text of each, and the other durable files are in place at once.
TEST(HostFiles, ADurableBatchWritesDhcpConfAndItsBackupOnceAtTheEnd)
{
    hosttest::TempDir dir("/etc");
    const std::string settings = dir.path + "/host.json", conf = dir.path + "/agent/dhcp.conf",
                      bak = dir.path + "/agent/dhcp.conf.bak", state = dir.path + "/agent/desired.json";
    std::ofstream(settings) << "{ \"dhcpConf\": \"" << conf << "\", \"dhcpConfBak\": \"" << bak << "\" }\n";
    setenv("KQ_HOST_CONFIG", settings.c_str(), 1);
    KQ_HostReloadConfig();
    struct Restore {
        ~Restore()
        {
            unsetenv("KQ_HOST_CONFIG");
            KQ_HostReloadConfig();
        }
    } restore;
    ASSERT_EQ(KQ_WriteSyncWithFilePath(bak.c_str(), "old", 3), 0);
    ASSERT_EQ(KQ_FileCopy(bak.c_str(), conf.c_str()), 0);

    ASSERT_EQ(KQ_HostDurableBatchBegin(), 0);
    EXPECT_EQ(KQ_HostDurableBatchBegin(), -EBUSY);
    for (const char *text : {"first", "second", "third"}) {
        ASSERT_EQ(KQ_WriteSyncWithFilePath(bak.c_str(), text, strlen(text)), 0);
        ASSERT_EQ(KQ_FileCopy(bak.c_str(), conf.c_str()), 0);
        EXPECT_EQ(Slurp(conf), "old");
        EXPECT_EQ(Slurp(bak), "old");
        char *read = static_cast<char *>(KQ_AllocAndGetConf(conf.c_str()));
        ASSERT_NE(read, nullptr);
        EXPECT_STREQ(read, text);
        KQ_FreeConf(read);
    }
    // Copied elsewhere, a kept text is written out as it is.
    ASSERT_EQ(KQ_FileCopy(conf.c_str(), (dir.path + "/copy").c_str()), 0);
    EXPECT_EQ(Slurp(dir.path + "/copy"), "third");
    ASSERT_EQ(KQ_HostWriteFile(state.c_str(), "state", 5, 1), 0);
    EXPECT_EQ(Slurp(state), "state");
    EXPECT_EQ(KQ_HostDurableBatchEnd(), 0);
    EXPECT_EQ(Slurp(conf), "third");
    EXPECT_EQ(Slurp(bak), "third");
    EXPECT_EQ(Names(dir.path + "/agent"), (std::set<std::string>{"dhcp.conf", "dhcp.conf.bak", "desired.json"}));
    EXPECT_EQ(KQ_HostDurableBatchEnd(), -EINVAL);

    // Outside a batch every write is in place when it returns; a batch that cannot write
    // dhcp.conf says so at its end and leaves the old one.
    ASSERT_EQ(KQ_WriteSyncWithFilePath(bak.c_str(), "fourth", 6), 0);
    EXPECT_EQ(Slurp(bak), "fourth");
    ASSERT_EQ(KQ_HostDurableBatchBegin(), 0);
    ASSERT_EQ(KQ_WriteSyncWithFilePath(bak.c_str(), "fifth", 5), 0);
    ASSERT_EQ(KQ_WriteSyncWithFilePath(conf.c_str(), "fifth", 5), 0);
    // Any other durable file is written at once, so its failure is the caller's at once.
    std::filesystem::create_directory(state + ".new");
    EXPECT_EQ(KQ_HostWriteFile((state + ".new").c_str(), "state", 5, 1), -EISDIR);
    std::filesystem::rename(conf, dir.path + "/moved");
    std::filesystem::create_directory(conf);
    EXPECT_EQ(KQ_HostDurableBatchEnd(), -EISDIR);
    EXPECT_EQ(Slurp(bak), "fifth");
    EXPECT_TRUE(std::filesystem::is_directory(conf));
}

// An append adds its bytes whole or not at all, to a regular file that is there.
TEST(HostFiles, AnAppendAddsItsBytesWholeOrNotAtAll)
{
    hosttest::TempDir dir("/etc");
    const std::string journal = dir.path + "/journal", link = dir.path + "/link";
    EXPECT_EQ(KQ_HostAppendFile(journal.c_str(), "a\n", 2, 1), -ENOENT);
    ASSERT_EQ(KQ_HostWriteFile(journal.c_str(), "head\n", 5, 1), 0);
    ASSERT_EQ(KQ_HostAppendFile(journal.c_str(), "one\n", 4, 1), 0);
    ASSERT_EQ(KQ_HostAppendFile(journal.c_str(), "two\n", 4, 0), 0);
    EXPECT_EQ(Slurp(journal), "head\none\ntwo\n");
    ASSERT_EQ(symlink(journal.c_str(), link.c_str()), 0);
    EXPECT_EQ((std::vector<int>{KQ_HostAppendFile(link.c_str(), "x", 1, 1), KQ_HostAppendFile(dir.path.c_str(), "x", 1, 1),
                                KQ_HostAppendFile(nullptr, "x", 1, 1)}),
              (std::vector<int>{-ELOOP, -EISDIR, -EINVAL}));
    // A write cut short, here by the file size limit, is taken back.
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{20, 20};
        setrlimit(RLIMIT_FSIZE, &limit);
        _exit(KQ_HostAppendFile(journal.c_str(), "three, more than fits\n", 22, 1) == -EFBIG ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(Slurp(journal), "head\none\ntwo\n");
}

}  // namespace
