// Runs inputs through a fuzz target without a fuzzer: fuzz_replay TARGET DIRECTORY... takes every file of the directories. A
// directory that is not there holds none.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#define TARGET(name) extern "C" int fuzz_##name(const std::uint8_t* data, std::size_t size);
FUZZ_TARGETS
#undef TARGET

namespace {

struct Target {
    const char* name;
    int (*run)(const std::uint8_t* data, std::size_t size);
};

#define TARGET(name) {#name, fuzz_##name},
constexpr Target kTargets[] = {FUZZ_TARGETS};
#undef TARGET

std::size_t runAll(const Target& target, const std::filesystem::path& directory) {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        std::printf("%s\n", entry.path().c_str());
        std::fflush(stdout);  // so that the last line tells which input a crash is from
        std::ifstream file(entry.path(), std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        target.run(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
        ++count;
    }
    return count;
}

}  // namespace

int main(int argc, char** argv) {
    std::size_t count = 0;
    for (const Target& target : kTargets) {
        for (int i = 2; i < argc && std::strcmp(argv[1], target.name) == 0; ++i) {
            count += std::filesystem::is_directory(argv[i]) ? runAll(target, argv[i]) : 0;
        }
    }
    std::printf("%zu inputs\n", count);
    return count != 0 ? 0 : 1;
}
