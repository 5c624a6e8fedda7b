// What all workloads share: files that live as long as the program, the plain read they are compared with, peak memory, and a
// host whose loaders only take the bytes.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <string>

#include <ternkit/filter.h>
#include <ternkit/load_cache.h>

namespace bench {

/// A file in a directory that goes with the program.
class File {
public:
    File(const std::string& name, const std::string& bytes);
    /// One that `write` writes to the path it is given.
    File(const std::string& name, const std::function<void(const std::string&)>& write);

    const std::string& path() const { return m_path; }
    std::u16string widePath() const { return {m_path.begin(), m_path.end()}; }
    std::uint64_t size() const { return m_size; }

private:
    std::string m_path;
    std::uint64_t m_size;
};

/// Processor seconds of one plain read of the file into fresh memory: the median of several.
double plainReadSeconds(const File& file);

/// Processor time of this process, so that what else the machine does stays out of the ratios.
double processorSeconds();

/// Has the peak of resident memory start anew. @return bytes that are resident now
std::uint64_t startPeakMemory();
/// Bytes.
std::uint64_t peakMemory();

/// Runs the workload and gives the processor seconds of one pass; the action must do all of it.
double measured(benchmark::State& state, const std::function<void()>& action);

/// Calls fltInfo for one message. @param slot what the host keeps, or null  @return its status
ternkit::Status callInfo(const File& file, std::int32_t messageNumber, ternkit::LoadCacheSlot* slot = nullptr);
/// The same with fltLoad.
ternkit::Status callLoad(const File& file, std::int32_t messageNumber, ternkit::LoadCacheSlot* slot = nullptr);

/// What an action takes in a process of its own.
struct Cost {
    std::uint64_t peakBytes;  // resident memory beyond what the process had before
    std::uint64_t bytesRead;  // by system calls
};
Cost costOf(const std::function<void()>& action);
/// The same of one call of fltInfo.
Cost costOfInfo(const File& file, std::int32_t messageNumber);

/// Runs fltInfo as the workload and reports bytes per second, the ratio to the plain read, and peak memory in units of the file.
void runInfo(benchmark::State& state, const File& file, std::int32_t messageNumber);

}  // namespace bench
