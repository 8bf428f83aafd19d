// Small helpers shared by the reference host's tests.
#pragma once

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include <unistd.h>

namespace hosttest {

// A fresh folder under Base (inside the test's private mounts), removed with its contents.
struct TempDir {
    std::string path;
    explicit TempDir(const std::string &Base)
    {
        std::string pattern = Base + "/kq-host-XXXXXX";
        path = mkdtemp(pattern.data()) != nullptr ? pattern : "";
    }
    ~TempDir()
    {
        if (!path.empty())
            std::system(("rm -rf " + path).c_str());
    }
};

inline std::string Slurp(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace hosttest
