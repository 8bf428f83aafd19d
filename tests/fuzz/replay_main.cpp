// Runs a fuzz target once over every file named, or every file in every folder named, the
// way a libFuzzer binary replays a corpus; the g++ builds have no libFuzzer.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size);
extern "C" int LLVMFuzzerInitialize(int *Argc, char ***Argv);

int main(int argc, char **argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i) {
        std::filesystem::path arg(argv[i]);
        if (std::filesystem::is_directory(arg)) {
            for (const auto &entry : std::filesystem::directory_iterator(arg))
                if (entry.is_regular_file())
                    inputs.push_back(entry.path());
        } else {
            inputs.push_back(arg);
        }
    }
    if (inputs.empty()) {
        fprintf(stderr, "usage: %s <corpus folder or file>...: no inputs found\n", argv[0]);
        return 2;
    }
    std::sort(inputs.begin(), inputs.end());
    for (const auto &path : inputs) {
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            fprintf(stderr, "cannot read %s\n", path.c_str());
            return 2;
        }
        std::vector<char> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        // An empty vector has no data(); hand the target a valid pointer anyway.
        static const uint8_t empty = 0;
        LLVMFuzzerTestOneInput(data.empty() ? &empty : reinterpret_cast<const uint8_t *>(data.data()),
                               data.size());
    }
    printf("replayed %zu inputs\n", inputs.size());
    return 0;
}
