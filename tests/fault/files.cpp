// What the files of a host hold, looked at past the library: the stream classes live in a shared
// object, so their calls meet no faults.
#include "scenario.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

namespace fault
{

namespace
{

std::string contents(const char* path)
{
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

}  // namespace

void writeFile(const char* path, std::string_view text)
{
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);
    stream.write(text.data(), static_cast<std::streamsize>(text.size()));
}

bool fileExists(const char* path)
{
    return std::ifstream(path).good();
}

bool fileHolds(const char* path, std::string_view text)
{
    return fileExists(path) && contents(path) == text;
}

bool fileHas(const char* path, std::string_view text)
{
    return contents(path).find(text) != std::string::npos;
}

void Model::put(uint32_t offset, const void* data, uint32_t length)
{
    if (offset + length <= sizeof(bytes)) {
        std::memcpy(bytes + offset, data, length);
        size = std::max(size, offset + length);
    }
}

bool fileIsModel(const char* path, const Model& model)
{
    const std::string held = contents(path);
    return held.size() >= model.size && std::memcmp(held.data(), model.bytes, model.size) == 0 &&
           std::all_of(held.begin() + model.size, held.end(), [](char c) { return c == '\0'; });
}

}  // namespace fault
