#include "bench_support.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>

#include <ternkit/ternbase.h>

namespace bench {

namespace {

constexpr std::uint32_t kOpenForReading = 256;

class Directory {
public:
    Directory() {
        std::string name = (std::filesystem::temp_directory_path() / "ternmail-bench-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no temporary directory");
        }
        m_path = name;
    }
    ~Directory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

ternkit::Status answer(ternkit::HostFileInfo* info) {
    info->totalPages = 1;
    info->width = 794;
    info->height = 1123;
    info->xResolution = 96;
    info->yResolution = 96;
    return ternkit::kOk;
}

ternkit::Status takeFile(const char16_t* /*path*/, ternkit::HostFileInfo* info, std::uint32_t, std::uint32_t,
                         ternkit::HostLoadOptions*) {
    return answer(info);
}

ternkit::Status takeMemory(const void* /*document*/, ternkit::HostFileInfo* info, std::uint32_t, std::uint64_t, std::uint32_t,
                           ternkit::HostLoadOptions*) {
    return answer(info);
}

ternkit::Status drawFile(const char16_t* /*path*/, void* /*bitmap*/, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t,
                         void* /*callback*/, void* /*userData*/, ternkit::HostLoadOptions*, ternkit::HostFileInfo*) {
    return ternkit::kOk;
}

ternkit::Status drawMemory(const void* /*document*/, void* /*bitmap*/, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t,
                           void* /*callback*/, void* /*userData*/, std::uint64_t, ternkit::HostLoadOptions*,
                           ternkit::HostFileInfo*) {
    return ternkit::kOk;
}

/// A number of a file of /proc/self, by the word in front of it.
std::uint64_t processFigure(const std::string& path, const std::string& name) {
    std::ifstream file(path);
    std::string word;
    std::uint64_t figure = 0;
    while (file >> word) {
        if (word == name) {
            file >> figure;
            break;
        }
    }
    return figure;
}

std::uint64_t memoryBytes(const std::string& name) {
    return processFigure("/proc/self/status", name) * 1024;
}

}  // namespace

double processorSeconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

std::uint64_t startPeakMemory() {
    malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << "5";
    return memoryBytes("VmRSS:");
}

std::uint64_t peakMemory() {
    return memoryBytes("VmHWM:");
}

File::File(const std::string& name, const std::string& bytes)
    : File(name, [&bytes](const std::string& path) {
          std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
      }) {}

File::File(const std::string& name, const std::function<void(const std::string&)>& write) {
    static const Directory directory;
    m_path = directory.path() / name;
    write(m_path);
    m_size = std::filesystem::file_size(m_path);
}

double measured(benchmark::State& state, const std::function<void()>& action) {
    double seconds = 0;
    for (auto _ : state) {
        const double start = processorSeconds();
        action();
        seconds += processorSeconds() - start;
    }
    return seconds / static_cast<double>(state.iterations());
}

double plainReadSeconds(const File& file) {
    std::array<double, 9> seconds{};
    for (double& one : seconds) {
        const double start = processorSeconds();
        const int descriptor = open(file.path().c_str(), O_RDONLY | O_CLOEXEC);
        const std::unique_ptr<char[]> memory(new char[file.size()]);
        const ssize_t count = read(descriptor, memory.get(), file.size());
        benchmark::DoNotOptimize(memory.get());
        close(descriptor);
        one = processorSeconds() - start;
        if (count != static_cast<ssize_t>(file.size())) {
            throw std::runtime_error("plain read came up short");
        }
    }
    std::nth_element(seconds.begin(), seconds.begin() + seconds.size() / 2, seconds.end());
    return seconds[seconds.size() / 2];
}

ternkit::Status callInfo(const File& file, std::int32_t messageNumber, ternkit::LoadCacheSlot* slot) {
    const std::u16string path = file.widePath();
    ternkit::HostLoadOptions options{};
    ternkit::HostFileInfo fileInfo{};
    ternkit::FilterInfoRequest request{};
    request.fileName = path.c_str();
    request.fileHandle = TbFileOpen(path.c_str(), 0, kOpenForReading);
    request.fileInfo = &fileInfo;
    request.options = &options;
    request.loadInfoFromFile = takeFile;
    request.loadInfoFromMemory = takeMemory;
    request.cacheSlot = slot;
    request.messageNumber = messageNumber;
    const ternkit::Status status = fltInfo(&request);
    TbFileClose(request.fileHandle);
    return status;
}

ternkit::Status callLoad(const File& file, std::int32_t messageNumber, ternkit::LoadCacheSlot* slot) {
    const std::u16string path = file.widePath();
    ternkit::HostLoadOptions options{};
    ternkit::HostFileInfo fileInfo{};
    ternkit::FilterLoadRequest request{};
    request.fileName = path.c_str();
    request.fileInfo = &fileInfo;
    request.options = &options;
    request.loadFromFile = drawFile;
    request.loadFromMemory = drawMemory;
    request.cacheSlot = slot;
    request.messageNumber = messageNumber;
    return fltLoad(&request);
}

Cost costOf(const std::function<void()>& action) {
    int channel[2];
    if (pipe(channel) != 0) {
        throw std::runtime_error("no pipe");
    }
    const pid_t child = fork();
    if (child == 0) {
        const std::uint64_t memoryBefore = startPeakMemory();
        const std::uint64_t readBefore = processFigure("/proc/self/io", "rchar:");
        action();
        const std::uint64_t readAfter = processFigure("/proc/self/io", "rchar:");
        const Cost cost{peakMemory() - memoryBefore, readAfter - readBefore};
        _exit(write(channel[1], &cost, sizeof(cost)) == sizeof(cost) ? 0 : 1);
    }
    close(channel[1]);
    Cost cost{};
    const bool received = read(channel[0], &cost, sizeof(cost)) == sizeof(cost);
    close(channel[0]);
    waitpid(child, nullptr, 0);
    if (!received) {
        throw std::runtime_error("the measured process ended early");
    }
    return cost;
}

Cost costOfInfo(const File& file, std::int32_t messageNumber) {
    return costOf([&] { callInfo(file, messageNumber); });
}

void runInfo(benchmark::State& state, const File& file, std::int32_t messageNumber) {
    const double plainRead = plainReadSeconds(file);
    const double seconds = measured(state, [&] {
        if (callInfo(file, messageNumber) != ternkit::kOk) {
            state.SkipWithError("the message was refused");
        }
    });
    state.SetBytesProcessed(static_cast<std::int64_t>(file.size()) * static_cast<std::int64_t>(state.iterations()));
    state.counters["x_plain_read"] = seconds / plainRead;
    state.counters["x_file_memory"] =
        static_cast<double>(costOfInfo(file, messageNumber).peakBytes) / static_cast<double>(file.size());
}

}  // namespace bench
