// SPDX-License-Identifier: GPL-3.0-or-later
// Runs a fuzz entry point over files without libFuzzer, so that the normal
// build replays the seed corpus and every input that ever crashed.
// Arguments: directories (every regular file in them) or files.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool ReadFile(const std::filesystem::path& path, std::vector<uint8_t>& bytes) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return false;
    bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    return !file.bad();
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::filesystem::path> inputs;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path(argv[i]);
        std::error_code error;
        if (std::filesystem::is_directory(path, error)) {
            for (const auto& entry : std::filesystem::directory_iterator(path)) {
                if (entry.is_regular_file()) inputs.push_back(entry.path());
            }
        } else if (std::filesystem::is_regular_file(path, error)) {
            inputs.push_back(path);
        } else {
            static_cast<void>(std::fprintf(stderr, "replay: no such file or directory: %s\n", argv[i]));
            return 2;
        }
    }
    // Sorted, so that a failure names the same input on every run.
    std::sort(inputs.begin(), inputs.end());
    if (inputs.empty()) {
        static_cast<void>(std::fprintf(stderr, "replay: no inputs given\n"));
        return 2;
    }
    for (const auto& path : inputs) {
        std::vector<uint8_t> bytes;
        if (!ReadFile(path, bytes)) {
            static_cast<void>(std::fprintf(stderr, "replay: cannot read %s\n", path.c_str()));
            return 2;
        }
        // Flushed before the run, so that a crash names its input.
        if (std::fprintf(stdout, "replay: %s (%zu bytes)\n", path.c_str(), bytes.size()) < 0 || std::fflush(stdout) != 0) {
            return 2;
        }
        // Like libFuzzer, never hand over a null pointer, not even for an empty input.
        static const uint8_t kEmpty = 0;
        LLVMFuzzerTestOneInput(bytes.empty() ? &kEmpty : bytes.data(), bytes.size());
    }
    return std::fprintf(stdout, "replay: %zu inputs, no failure\n", inputs.size()) < 0 ? 2 : 0;
}
