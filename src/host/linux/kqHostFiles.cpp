// Files of the reference host. A file is replaced, never rewritten in place: the new text
// goes to a temporary file in the same folder, which is synced and renamed over the
// target, and the folder is synced too, so a crash at any point leaves either the old or
// the new file whole.
#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>

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

constexpr char kTempSuffix[] = "XXXXXX";
constexpr size_t kTempSuffixLen = sizeof(kTempSuffix) - 1;

// Temporary files that an earlier process, killed between mkostemp and rename, left for the
// same target: "<prefix>" followed by exactly the six characters mkostemp picks. No other
// target's temporary has that form, since the length fixes the name. The agent writes a file
// from one thread, so none of them belongs to a write still in progress.
void RemoveStaleTemps(const std::string &folder, const std::string &prefix)
{
    DIR *dir = opendir(folder.c_str());
    if (dir == nullptr)
        return;  // best effort: the write itself reports what is wrong with the folder
    while (const dirent *e = readdir(dir)) {
        const char *n = e->d_name;
        if (strlen(n) != prefix.size() + kTempSuffixLen || strncmp(n, prefix.c_str(), prefix.size()) != 0)
            continue;
        bool random = true;
        for (size_t i = prefix.size(); n[i] != '\0'; ++i)
            random = random && isalnum(static_cast<unsigned char>(n[i]));
        if (random)
            (void)unlinkat(dirfd(dir), n, 0);
    }
    closedir(dir);
}

// Replaces path with what fill writes into a fresh temporary file.
int ReplaceFile(const char *path, const std::function<int(int fd)> &fill)
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

    std::string name = target.substr(target.rfind('/') == std::string::npos ? 0 : target.rfind('/') + 1);
    const std::string tempPrefix = "." + name + ".";
    RemoveStaleTemps(folder, tempPrefix);
    std::string temp = (folder == "/" ? "" : folder) + "/" + tempPrefix + kTempSuffix;
    Fd fd(mkostemp(temp.data(), O_CLOEXEC));
    if (fd.get() < 0)
        return -errno;

    struct stat old;
    mode_t mode = stat(path, &old) == 0 && S_ISREG(old.st_mode) ? (old.st_mode & 07777) : 0644;
    ret = fill(fd.get());
    if (ret == 0 && fchmod(fd.get(), mode) != 0)
        ret = -errno;
    if (ret == 0 && fsync(fd.get()) != 0)
        ret = -errno;
    int closed = fd.Close();
    if (ret == 0)
        ret = closed;
    if (ret == 0 && rename(temp.c_str(), path) != 0)
        ret = -errno;
    if (ret < 0) {
        unlink(temp.c_str());
        return ret;
    }
    return SyncFolder(folder);
}

}  // namespace

namespace kqhost {

int ReadSmallFile(const char *path, size_t maxSize, std::string &out)
{
    if (path == nullptr)
        return -EINVAL;
    Fd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0)
        return -errno;
    struct stat st;
    if (fstat(fd.get(), &st) != 0)
        return -errno;
    if (!S_ISREG(st.st_mode))
        return S_ISDIR(st.st_mode) ? -EISDIR : -EINVAL;
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
    if (Data == nullptr && Len != 0)
        return -EINVAL;
    return ReplaceFile(Path, [&](int fd) { return WriteAll(fd, Data, Len); });
}

KQ_ERR_T KQ_FileCopy(const char *From, const char *To)
{
    if (From == nullptr || To == nullptr)
        return -EINVAL;
    Fd source(open(From, O_RDONLY | O_CLOEXEC));
    if (source.get() < 0)
        return -errno;
    struct stat st;
    if (fstat(source.get(), &st) != 0)
        return -errno;
    if (!S_ISREG(st.st_mode))
        return S_ISDIR(st.st_mode) ? -EISDIR : -EINVAL;
    return ReplaceFile(To, [&](int fd) {
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

void KQ_FreeConf(void *Conf)
{
    free(Conf);
}

}  // extern "C"
