// Files of the reference host. A file is replaced, never rewritten in place: the new text
// goes to an unnamed temporary file in the target's folder (O_TMPFILE), which is given a
// name and renamed over the target, so a crash at any point leaves either the old or the
// new file whole, and a write killed half-way leaves nothing behind. Only the files that
// must survive a power cut (dhcp.conf, its backup, the agent's own state) are synced,
// with their folder; the others are rebuilt from them at every start.
#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "kqHostInternal.h"

namespace {

constexpr size_t kMaxConfFile = 16u << 20;

class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { Close(); }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }
    void Reset(int fd)
    {
        Close();
        fd_ = fd;
    }
    // Closes now; -errno when the close reports a (write-back) failure.
    int Close()
    {
        int ret = 0;
        if (fd_ >= 0 && close(fd_) != 0)
            ret = -errno;
        fd_ = -1;
        return ret;
    }

private:
    int fd_;
};

int WriteAll(int fd, const char *data, size_t len)
{
    while (len > 0) {
        ssize_t n = write(fd, data, len);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return -errno;
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
    return 0;
}

// Opens path (close-on-exec) and checks that it is a regular file: 0, or a negative errno
// (-EISDIR for a folder, -EINVAL for anything else that is not a regular file).
int OpenRegular(const char *path, int flags, Fd &fd, struct stat &st)
{
    fd.Reset(open(path, flags | O_CLOEXEC));
    if (fd.get() < 0)
        return -errno;
    if (fstat(fd.get(), &st) != 0)
        return -errno;
    if (!S_ISREG(st.st_mode))
        return S_ISDIR(st.st_mode) ? -EISDIR : -EINVAL;
    return 0;
}

std::string FolderOf(const std::string &path)
{
    size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// mkdir -p: every missing folder of path is created with mode 0755.
int MakeFolders(const std::string &folder)
{
    struct stat st;
    if (stat(folder.c_str(), &st) == 0)
        return S_ISDIR(st.st_mode) ? 0 : -ENOTDIR;
    if (errno != ENOENT)
        return -errno;
    std::string parent = FolderOf(folder);
    if (parent != folder) {
        int ret = MakeFolders(parent);
        if (ret < 0)
            return ret;
    }
    if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST)
        return -errno;
    return 0;
}

int SyncFolder(const std::string &folder)
{
    Fd dir(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() < 0)
        return -errno;
    if (fsync(dir.get()) != 0)
        return -errno;
    return dir.Close();
}

// Temporary names: ".<name>" + kTempMark + six letters or digits. A temporary has a name
// only between linkat and rename (or, where the filesystem has no O_TMPFILE, for the whole
// write), so only a writer killed in that moment leaves one.
constexpr char kTempMark[] = ".kqtmp.";
constexpr size_t kTempMarkLen = sizeof(kTempMark) - 1;
constexpr size_t kTempRandomLen = 6;

bool IsTempName(const char *name)
{
    size_t len = strlen(name);
    if (name[0] != '.' || len < 1 + kTempMarkLen + kTempRandomLen)
        return false;
    const char *random = name + len - kTempRandomLen;
    if (strncmp(random - kTempMarkLen, kTempMark, kTempMarkLen) != 0)
        return false;
    for (size_t i = 0; i < kTempRandomLen; ++i)
        if (!isalnum(static_cast<unsigned char>(random[i])))
            return false;
    return true;
}

// Removes what writers killed in that moment left in folder, once per folder and process:
// at start-up, not at every write. The agent is the one process that writes these files,
// so no temporary found here belongs to a write in progress.
void RemoveStaleTempsOnce(const std::string &folder)
{
    static std::mutex lock;
    static std::set<std::string> cleaned;
    {
        std::lock_guard<std::mutex> guard(lock);
        if (!cleaned.insert(folder).second)
            return;
    }
    DIR *dir = opendir(folder.c_str());
    if (dir == nullptr)
        return;  // best effort: the write itself reports what is wrong with the folder
    while (const dirent *e = readdir(dir))
        if (IsTempName(e->d_name))
            (void)unlinkat(dirfd(dir), e->d_name, 0);
    closedir(dir);
}

void RandomLetters(char *out, size_t n)
{
    static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    unsigned char bytes[kTempRandomLen];
    if (getrandom(bytes, sizeof(bytes), GRND_NONBLOCK) != static_cast<ssize_t>(sizeof(bytes))) {
        // No entropy yet (early boot): a name clash only costs another attempt.
        static uint32_t state = static_cast<uint32_t>(getpid()) * 2654435761u | 1u;
        for (unsigned char &b : bytes) {
            state ^= state << 13, state ^= state >> 17, state ^= state << 5;
            b = static_cast<unsigned char>(state);
        }
    }
    for (size_t i = 0; i < n && i < sizeof(bytes); ++i)
        out[i] = kLetters[bytes[i] % (sizeof(kLetters) - 1)];
}

// A new temporary file in folder: an unnamed one, or a named one (temp then holds its
// name) where the filesystem cannot make unnamed files.
int OpenTemp(const std::string &folder, std::string &temp, bool &named)
{
    int fd = open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
    if (fd >= 0) {
        named = false;
        return fd;
    }
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)
        return -errno;
    temp.replace(temp.size() - kTempRandomLen, kTempRandomLen, kTempRandomLen, 'X');
    fd = mkostemp(temp.data(), O_CLOEXEC);
    if (fd < 0)
        return -errno;
    named = true;
    return fd;
}

// Gives the unnamed file fd a free temporary name (temp), ready to be renamed.
int NameTemp(int fd, std::string &temp)
{
    std::string self = "/proc/self/fd/" + std::to_string(fd);
    for (int attempt = 0; attempt < 100; ++attempt) {
        RandomLetters(&temp[temp.size() - kTempRandomLen], kTempRandomLen);
        if (linkat(AT_FDCWD, self.c_str(), AT_FDCWD, temp.c_str(), AT_SYMLINK_FOLLOW) == 0)
            return 0;
        if (errno != EEXIST)
            return -errno;
    }
    return -EEXIST;
}

// How much of a replacement is on disk when it returns: nothing forced; the new file's
// text (synced before the rename, so the rename never lands before the text it names);
// or that and the rename too (the folder synced).
enum class Sync { None, Text, Full };

// Replaces path with what fill writes into a fresh temporary file.
int ReplaceFile(const char *path, Sync sync, const std::function<int(int fd)> &fill)
{
    if (path == nullptr || path[0] == '\0')
        return -EINVAL;
    std::string target = path;
    if (target.back() == '/')
        return -EISDIR;
    std::string folder = FolderOf(target);
    int ret = MakeFolders(folder);
    if (ret < 0)
        return ret;
    RemoveStaleTempsOnce(folder);

    std::string name = target.substr(target.rfind('/') == std::string::npos ? 0 : target.rfind('/') + 1);
    std::string temp = (folder == "/" ? "" : folder) + "/." + name + kTempMark + std::string(kTempRandomLen, 'X');
    bool named = false;
    Fd fd(OpenTemp(folder, temp, named));
    if (fd.get() < 0)
        return fd.get();

    struct stat old;
    mode_t mode = stat(path, &old) == 0 && S_ISREG(old.st_mode) ? (old.st_mode & 07777) : 0644;
    ret = fill(fd.get());
    if (ret == 0 && fchmod(fd.get(), mode) != 0)
        ret = -errno;
    if (ret == 0 && sync != Sync::None && fsync(fd.get()) != 0)
        ret = -errno;
    if (ret == 0 && !named) {
        ret = NameTemp(fd.get(), temp);
        named = ret == 0;
    }
    int closed = fd.Close();
    if (ret == 0)
        ret = closed;
    if (ret == 0 && rename(temp.c_str(), path) != 0)
        ret = -errno;
    if (ret < 0) {
        if (named)
            unlink(temp.c_str());
        return ret;
    }
    return sync == Sync::Full ? SyncFolder(folder) : 0;
}

// The files a power cut must not take: dhcp.conf and its backup. Every other file the
// module writes is derived from them. The backup is written first and then copied to
// dhcp.conf; when both are in one folder, the folder sync of that copy also makes the
// backup's rename durable, so the backup's own folder sync is left out (a crash before it
// leaves the old backup whole, next to the old dhcp.conf).
Sync SyncFor(const char *path)
{
    if (path == nullptr)
        return Sync::None;
    const char *conf = KQ_AgentPathDhcpConf();
    const char *bak = KQ_AgentPathDhcpConfbak();
    if (conf != nullptr && strcmp(path, conf) == 0)
        return Sync::Full;
    if (bak == nullptr || strcmp(path, bak) != 0)
        return Sync::None;
    return conf != nullptr && FolderOf(conf) == FolderOf(bak) ? Sync::Text : Sync::Full;
}

// A durable batch (KQ_HostDurableBatchBegin .. End): the texts of dhcp.conf and its backup
// are kept here instead of being written, and the folders of the other durable writes are
// remembered; End writes each kept text once (synced before its rename) and syncs each
// folder once. Until then the files on disk are the ones from before the batch, whole.
struct DurableBatch {
    bool open = false;
    std::vector<std::pair<std::string, std::string>> texts;  // path, text; in first-write order
    std::set<std::string> folders;                            // to sync at the end
};
std::mutex sg_BatchLock;
DurableBatch sg_Batch;

// The kept text of path in the open batch, or null.
std::string *BatchText(const char *path)
{
    for (auto &[kept, text] : sg_Batch.texts)
        if (kept == path)
            return &text;
    return nullptr;
}

// True when path already is a regular file holding exactly len bytes of data.
bool HoldsAlready(const char *path, const char *data, size_t len)
{
    Fd fd(open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    struct stat st;
    if (fd.get() < 0 || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || static_cast<uint64_t>(st.st_size) != len)
        return false;
    char chunk[4096];
    size_t done = 0;
    while (done < len) {
        ssize_t n = read(fd.get(), chunk, sizeof(chunk));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0 || static_cast<size_t>(n) > len - done || memcmp(chunk, data + done, static_cast<size_t>(n)) != 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

int WriteText(const char *path, const char *data, size_t len, Sync sync) noexcept
try {
    if (data == nullptr && len != 0)
        return -EINVAL;
    if (kqhost::DryRunTakes("write", path, data, len))
        return 0;
    if (sync != Sync::None && path != nullptr && path[0] != '\0') {
        std::lock_guard<std::mutex> guard(sg_BatchLock);
        if (sg_Batch.open && SyncFor(path) != Sync::None) {
            if (std::string *kept = BatchText(path))
                kept->assign(data, len);
            else
                sg_Batch.texts.emplace_back(path, std::string(data, len));
            return 0;
        }
        if (sg_Batch.open) {
            // Its text is synced now, its rename with the others at the end.
            int ret = ReplaceFile(path, Sync::Text, [&](int fd) { return WriteAll(fd, data, len); });
            if (ret == 0)
                sg_Batch.folders.insert(FolderOf(path));
            return ret;
        }
    }
    // A derived file that is already what it should be (the dnsmasq files at a restart) is
    // left alone: creating and renaming a file costs the filesystem far more than reading
    // it. Durable files are always written, so that they are synced whatever wrote them.
    if (sync == Sync::None && path != nullptr && len > 0 && HoldsAlready(path, data, len))
        return 0;
    return ReplaceFile(path, sync, [&](int fd) { return WriteAll(fd, data, len); });
} catch (const std::bad_alloc &) {
    return -ENOMEM;
}

}  // namespace

namespace kqhost {

int ReadSmallFile(const char *path, size_t maxSize, std::string &out)
{
    if (path == nullptr)
        return -EINVAL;
    Fd fd;
    struct stat st;
    if (int ret = OpenRegular(path, O_RDONLY, fd, st); ret < 0)
        return ret;
    if (static_cast<uint64_t>(st.st_size) > maxSize)
        return -EFBIG;
    out.clear();
    char chunk[8192];
    for (;;) {
        ssize_t n = read(fd.get(), chunk, sizeof(chunk));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return -errno;
        }
        if (n == 0)
            break;
        if (out.size() + static_cast<size_t>(n) > maxSize)  // it grew while being read
            return -EFBIG;
        out.append(chunk, static_cast<size_t>(n));
    }
    return 0;
}

}  // namespace kqhost

extern "C" {

int32_t KQ_WriteSyncWithFilePath(const char *Path, const char *Data, size_t Len)
{
    return WriteText(Path, Data, Len, SyncFor(Path));
}

KQ_ERR_T KQ_HostWriteFile(const char *Path, const char *Data, size_t Len, int Durable)
{
    return WriteText(Path, Data, Len, Durable != 0 ? Sync::Full : Sync::None);
}

KQ_ERR_T KQ_HostAppendFile(const char *Path, const char *Data, size_t Len, int Durable)
{
    if (Path == nullptr || (Data == nullptr && Len > 0))
        return -EINVAL;
    if (kqhost::DryRunTakes("append", Path, Data, Len))
        return 0;
    Fd fd;
    struct stat st;
    int ret = OpenRegular(Path, O_WRONLY | O_APPEND | O_NOFOLLOW, fd, st);
    if (ret < 0)
        return ret;
    ret = WriteAll(fd.get(), Data, Len);
    if (ret == 0 && Durable != 0 && fdatasync(fd.get()) != 0)
        ret = -errno;
    // A reader must not find half of it: the file ends where it ended.
    if (ret < 0 && ftruncate(fd.get(), st.st_size) != 0)
        return ret;
    return ret < 0 ? ret : fd.Close();
}

KQ_ERR_T KQ_FileCopy(const char *From, const char *To)
{
    if (From == nullptr || To == nullptr)
        return -EINVAL;
    if (kqhost::DryRunTakes("copy", From, To, strlen(To)))
        return 0;
    {
        // In a durable batch the copy of a kept text is kept too (dhcp.conf from its backup).
        std::unique_lock<std::mutex> guard(sg_BatchLock);
        if (sg_Batch.open) {
            const std::string *kept = BatchText(From);
            if (kept != nullptr) {
                const std::string text = *kept;
                guard.unlock();
                return WriteText(To, text.data(), text.size(), SyncFor(To));
            }
            if (SyncFor(To) != Sync::None) {
                guard.unlock();
                std::string text;
                int ret = kqhost::ReadSmallFile(From, kMaxConfFile, text);
                return ret < 0 ? ret : WriteText(To, text.data(), text.size(), SyncFor(To));
            }
        }
    }
    Fd source(open(From, O_RDONLY | O_CLOEXEC));
    if (source.get() < 0)
        return -errno;
    struct stat st;
    if (fstat(source.get(), &st) != 0)
        return -errno;
    if (!S_ISREG(st.st_mode))
        return S_ISDIR(st.st_mode) ? -EISDIR : -EINVAL;
    return ReplaceFile(To, SyncFor(To), [&](int fd) {
        char chunk[65536];
        for (;;) {
            ssize_t n = read(source.get(), chunk, sizeof(chunk));
            if (n < 0) {
                if (errno == EINTR)
                    continue;
                return -errno;
            }
            if (n == 0)
                return 0;
            int ret = WriteAll(fd, chunk, static_cast<size_t>(n));
            if (ret < 0)
                return ret;
        }
    });
}

void *KQ_AllocAndGetConf(const char *Path)
{
    if (Path == nullptr)
        return nullptr;
    {
        // What a durable batch keeps is what the file holds for everyone in this process.
        std::lock_guard<std::mutex> guard(sg_BatchLock);
        if (const std::string *kept = sg_Batch.open ? BatchText(Path) : nullptr) {
            char *copy = static_cast<char *>(malloc(kept->size() + 1));
            if (copy != nullptr)
                memcpy(copy, kept->c_str(), kept->size() + 1);
            return copy;
        }
    }
    Fd fd(open(Path, O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0)
        return nullptr;
    struct stat st;
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
        static_cast<uint64_t>(st.st_size) > kMaxConfFile)
        return nullptr;
    // Room for the size seen now; a file that grows while it is read gets more, up to the limit.
    size_t capacity = static_cast<size_t>(st.st_size) + 1;
    char *buf = static_cast<char *>(malloc(capacity));
    if (buf == nullptr)
        return nullptr;
    size_t len = 0;
    for (;;) {
        char probe;
        bool full = len + 1 == capacity;
        ssize_t n = full ? read(fd.get(), &probe, 1) : read(fd.get(), buf + len, capacity - 1 - len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n == 0)
            break;
        if (n > 0 && !full) {
            len += static_cast<size_t>(n);
            continue;
        }
        char *grown = nullptr;
        if (n > 0 && capacity <= kMaxConfFile) {
            size_t bigger = capacity * 2 > kMaxConfFile + 1 ? kMaxConfFile + 1 : capacity * 2;
            grown = static_cast<char *>(realloc(buf, bigger));
            if (grown != nullptr) {
                buf = grown;
                capacity = bigger;
                buf[len++] = probe;
                continue;
            }
        }
        free(buf);  // a read error, the limit, or no memory
        return nullptr;
    }
    buf[len] = '\0';
    return buf;
}

KQ_ERR_T KQ_HostDurableBatchBegin(void)
{
    std::lock_guard<std::mutex> guard(sg_BatchLock);
    if (sg_Batch.open)
        return -EBUSY;
    sg_Batch.open = true;
    return 0;
}

KQ_ERR_T KQ_HostDurableBatchEnd(void)
{
    DurableBatch batch;
    {
        std::lock_guard<std::mutex> guard(sg_BatchLock);
        if (!sg_Batch.open)
            return -EINVAL;
        batch = std::move(sg_Batch);
        sg_Batch = DurableBatch{};
    }
    // In first-write order: the backup before dhcp.conf, as each change writes them.
    int result = 0;
    try {
        for (const auto &[path, text] : batch.texts) {
            int ret = ReplaceFile(path.c_str(), Sync::Text,
                                  [&](int fd) { return WriteAll(fd, text.data(), text.size()); });
            if (ret == 0)
                batch.folders.insert(FolderOf(path));
            else if (result == 0)
                result = ret;
        }
        for (const std::string &folder : batch.folders) {
            int ret = SyncFolder(folder);
            if (ret < 0 && result == 0)
                result = ret;
        }
    } catch (const std::bad_alloc &) {
        result = -ENOMEM;
    }
    return result;
}

void KQ_FreeConf(void *Conf)
{
    free(Conf);
}

}  // extern "C"
