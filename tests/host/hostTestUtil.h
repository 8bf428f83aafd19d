// What the reference host's tests share: the system headers they use and two helpers.
#pragma once

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "kqHostLinux.h"

namespace hosttest {

// A fresh folder under Base (inside the test's private mounts), removed with its contents.
struct TempDir {
    std::string path;
    explicit TempDir(const std::string &Base) : path(Base + "/kq-host-XXXXXX")
    {
        if (mkdtemp(path.data()) == nullptr)
            path.clear();
    }
    ~TempDir()
    {
        std::error_code ignored;  // what cannot be removed goes with the test's scratch overlay
        if (!path.empty())
            std::filesystem::remove_all(path, ignored);
    }
};

inline std::string Slurp(const std::string &Path)
{
    std::stringstream text;
    text << std::ifstream(Path).rdbuf();
    return text.str();
}

// Catches descriptors a host operation leaves open.
inline long OpenDescriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

}  // namespace hosttest
