// Runs a fuzz target without libFuzzer: over the files given, or the files of
// the folders given, in name order. The normal build runs every target over its
// seed corpus this way, so the targets build and hold in every build.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

int main(int argc, char **argv)
{
    if (LLVMFuzzerInitialize) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path argument(argv[i]);
        std::error_code error;
        if (std::filesystem::is_directory(argument, error)) {
            for (const auto &entry : std::filesystem::directory_iterator(argument, error)) {
                if (entry.is_regular_file()) {
                    inputs.push_back(entry.path());
                }
            }
        } else if (std::filesystem::is_regular_file(argument, error)) {
            inputs.push_back(argument);
        } else {
            std::fprintf(stderr, "%s: no such file or folder\n", argv[i]);
            return 2;
        }
    }
    std::sort(inputs.begin(), inputs.end());
    // A corpus that went missing must not pass as a run over nothing.
    if (inputs.empty()) {
        std::fprintf(stderr, "no inputs\n");
        return 2;
    }
    for (const std::filesystem::path &path : inputs) {
        std::ifstream file(path, std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        if (!file.good() && !file.eof()) {
            std::fprintf(stderr, "%s: cannot read\n", path.c_str());
            return 2;
        }
        std::fprintf(stderr, "%s\n", path.c_str());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    }
    std::printf("%zu inputs\n", inputs.size());
    return 0;
}
