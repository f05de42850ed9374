// The main function of a target in builds without libFuzzer: runs each file, and each file of each
// directory, that the command line names.
#include "fuzz.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

namespace
{
using Path = std::filesystem::path;

std::vector<Path> filesOf(const Path& path)
{
    if (!std::filesystem::is_directory(path)) {
        return {path};
    }
    std::vector<Path> files;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

void replay(const Path& path)
{
    std::ifstream stream(path, std::ios::binary);
    FUZZ_CHECK(stream.is_open());
    const std::string bytes{std::istreambuf_iterator<char>(stream), {}};
    // Named first: an input that ends the process is the last one of the output.
    std::printf("%s (%zu bytes)\n", path.c_str(), bytes.size());
    std::fflush(stdout);
    // Exactly as large as the input, so that a sanitizer sees a read beyond it.
    const std::vector<uint8_t> input(bytes.begin(), bytes.end());
    FUZZ_CHECK(LLVMFuzzerTestOneInput(input.data(), input.size()) == 0);
}
}  // namespace

int main(int argc, char** argv)
{
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        for (const Path& path : filesOf(argv[i])) {
            replay(path);
            ++count;
        }
    }
    std::printf("%zu inputs\n", count);
    return count > 0 ? 0 : 1;
}
