// Runs a fuzz target once over every file in every folder named, in name order, the way a
// libFuzzer binary replays a corpus; the g++ builds have no libFuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size);
extern "C" int LLVMFuzzerInitialize(int *Argc, char ***Argv);

int main(int argc, char **argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    std::set<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i)
        for (const auto &entry : std::filesystem::directory_iterator(argv[i]))
            inputs.insert(entry.path());
    for (const auto &path : inputs) {
        std::ifstream in(path, std::ios::binary);
        std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (!in) {
            fprintf(stderr, "cannot read %s\n", path.c_str());
            return 2;
        }
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(data.data()), data.size());  // never null
    }
    printf("replayed %zu inputs\n", inputs.size());
    return inputs.empty() ? 2 : 0;
}
