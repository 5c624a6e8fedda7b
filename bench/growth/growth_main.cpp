/**
 * ternmail_growth: processor time and memory of worst cases at sizes that double, and the exponent with which the time grows.
 *
 *     ternmail_growth                          a table of all cases at 1, 2, 4 and 8 MB
 *     ternmail_growth --only html/ --from 0.25 some of them, from a quarter of a megabyte on
 *     ternmail_growth --most 1.3               ends with code 1 when an exponent is above 1.3
 *     ternmail_growth --write DIR --size 0.99  writes each case that is a mail file, below that many megabytes
 */
#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "growth.h"

namespace {

using growth::Case;

constexpr double kMegabyte = 1'000'000;
constexpr double kRemarkable = 1.1;        // an exponent that is flagged
constexpr double kRemarkableTime = 0.025;  // seconds; below, caches decide, and nothing is flagged
constexpr double kShortestTime = 0.001;    // seconds; below, noise decides, and there is no exponent
constexpr double kBatchTime = 0.12;        // seconds of a batch of runs: the clock may tick every few milliseconds only
constexpr std::chrono::seconds kLongestBatch{1};
constexpr int kBatches = 3;
constexpr double kLongTime = 1;  // seconds; a batch that took longer is not repeated

struct Options {
    std::string only;
    std::string directory;
    double size = 0.999;
    double from = 1;
    int doublings = 3;
    double most = std::numeric_limits<double>::infinity();
    unsigned limit = 60;
};

struct Figures {
    double seconds;           // of the quickest run
    std::uint64_t peakBytes;  // resident memory beyond what there was before
    std::int64_t outcome;
};

struct Point {
    double bytes;
    Figures figures;
};

/// @return seconds of one run, of as many as take enough time together
double runBatch(const Case& one, const std::string& bytes, const bench::File& file) {
    const double start = bench::processorSeconds();
    const auto begun = std::chrono::steady_clock::now();
    double seconds = 0;
    int runs = 0;
    do {
        one.read(bytes, file);
        ++runs;
        seconds = bench::processorSeconds() - start;
    } while (seconds < kBatchTime && std::chrono::steady_clock::now() - begun < kLongestBatch);
    return seconds / runs;
}

Figures measure(const Case& one, const std::string& bytes, const bench::File& file) {
    const std::uint64_t before = bench::startPeakMemory();
    const double start = bench::processorSeconds();
    const std::int64_t outcome = one.read(bytes, file);
    Figures figures{bench::processorSeconds() - start, bench::peakMemory() - before, outcome};
    if (figures.seconds > kLongTime) {
        return figures;
    }
    for (int batch = 0; batch < kBatches; ++batch) {
        const double seconds = runBatch(one, bytes, file);
        figures.seconds = batch == 0 ? seconds : std::min(figures.seconds, seconds);
    }
    return figures;
}

/// In a process of its own, so that nothing of one case stays for the next. @return nothing when it went over the limit or ended
std::optional<Figures> measureApart(const Case& one, const std::string& bytes, const bench::File& file, unsigned limit) {
    int channel[2];
    if (pipe(channel) != 0) {
        return std::nullopt;
    }
    const pid_t child = fork();
    if (child == 0) {
        const rlimit processorTime{limit, limit};
        setrlimit(RLIMIT_CPU, &processorTime);
        try {
            const Figures figures = measure(one, bytes, file);
            _exit(write(channel[1], &figures, sizeof(figures)) == sizeof(figures) ? 0 : 1);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s: %s\n", one.name.c_str(), error.what());
        }
        _exit(1);
    }
    close(channel[1]);
    Figures figures{};
    const bool complete = read(channel[0], &figures, sizeof(figures)) == sizeof(figures);
    close(channel[0]);
    waitpid(child, nullptr, 0);
    return complete ? std::optional(figures) : std::nullopt;
}

/// The slope of a straight line through the logarithms, by least squares.
std::optional<double> exponentOf(const std::vector<Point>& points) {
    if (points.size() < 2 || points.back().figures.seconds < kShortestTime) {
        return std::nullopt;
    }
    double meanX = 0;
    double meanY = 0;
    for (const Point& point : points) {
        meanX += std::log(point.bytes) / static_cast<double>(points.size());
        meanY += std::log(point.figures.seconds) / static_cast<double>(points.size());
    }
    double products = 0;
    double squares = 0;
    for (const Point& point : points) {
        const double x = std::log(point.bytes) - meanX;
        products += x * (std::log(point.figures.seconds) - meanY);
        squares += x * x;
    }
    return squares > 0 ? std::optional(products / squares) : std::nullopt;
}

/// @return whether the case keeps below the exponent that is allowed
bool report(const Case& one, const Options& options) {
    std::printf("%-44s", one.name.c_str());
    std::fflush(stdout);
    std::vector<Point> points;
    bool ended = false;
    for (int step = 0; step <= options.doublings && !ended; ++step) {
        const std::string bytes = one.make(static_cast<std::size_t>(options.from * kMegabyte * (1 << step)));
        const bench::File file("input", bytes);
        const std::optional<Figures> figures = measureApart(one, bytes, file, options.limit);
        ended = !figures;
        if (figures) {
            points.push_back({static_cast<double>(bytes.size()), *figures});
            std::printf(" %10.2f", figures->seconds * 1000);
        } else {
            std::printf(" %10s", "ended");
        }
        std::fflush(stdout);
    }
    for (auto shown = points.size() + (ended ? 1 : 0); shown <= static_cast<std::size_t>(options.doublings); ++shown) {
        std::printf(" %10s", "-");
    }
    const std::optional<double> exponent = exponentOf(points);
    exponent ? std::printf(" %8.2f", *exponent) : std::printf(" %8s", "-");
    if (points.empty()) {
        std::printf("\n");
        return false;
    }
    const Figures& last = points.back().figures;
    const bool isRemarkable = ended || (exponent && *exponent > kRemarkable && last.seconds > kRemarkableTime);
    std::printf(" %8.1f %8lld%s\n", static_cast<double>(last.peakBytes) / kMegabyte, static_cast<long long>(last.outcome),
                isRemarkable ? "  <--" : "");
    return !ended && (!exponent || *exponent <= options.most);
}

void writeFile(const Case& one, const Options& options) {
    const auto most = static_cast<std::size_t>(options.size * kMegabyte);
    std::size_t asked = most;
    std::string bytes = one.make(asked);
    while (bytes.size() > most) {
        asked = static_cast<std::size_t>(0.98 * static_cast<double>(asked) * static_cast<double>(most) /
                                         static_cast<double>(bytes.size()));
        bytes = one.make(asked);
    }
    std::string name = one.name + "." + one.extension;
    std::replace(name.begin(), name.end(), '/', '-');
    std::replace(name.begin(), name.end(), ' ', '-');
    std::ofstream(std::filesystem::path(options.directory) / name, std::ios::binary)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

[[noreturn]] void usage() {
    std::fputs(
        "usage: ternmail_growth [--only TEXT] [--from MB] [--doublings N] [--limit SECONDS] [--most EXPONENT]\n"
        "       ternmail_growth [--only TEXT] --write DIRECTORY [--size MB]\n",
        stderr);
    std::exit(2);
}

Options parse(int argc, char** argv) {
    Options options;
    for (int at = 1; at < argc; at += 2) {
        const std::string name = argv[at];
        if (at + 1 == argc) {
            usage();
        }
        const char* value = argv[at + 1];
        if (name == "--only") {
            options.only = value;
        } else if (name == "--write") {
            options.directory = value;
        } else if (name == "--size") {
            options.size = std::atof(value);
        } else if (name == "--from") {
            options.from = std::atof(value);
        } else if (name == "--doublings") {
            options.doublings = std::atoi(value);
        } else if (name == "--limit") {
            options.limit = static_cast<unsigned>(std::atoi(value));
        } else if (name == "--most") {
            options.most = std::atof(value);
        } else {
            usage();
        }
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    // The allocator would keep blocks up to some size and give back those above, so that the larger sizes of a case would pay the
    // kernel for fresh memory in every run, the smaller ones in none. It keeps all: the first run pays, and the quickest counts.
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
    growth::Cases cases;
    growth::addMail(cases);
    growth::addRtf(cases);
    growth::addItems(cases);
    growth::addStores(cases);
#ifdef TERN_HOST
    growth::addHost(cases);
#endif
    std::erase_if(cases, [&](const Case& one) { return one.name.find(options.only) == std::string::npos; });
    if (!options.directory.empty()) {
        std::filesystem::create_directories(options.directory);
        for (const Case& one : cases) {
            if (!one.extension.empty()) {
                writeFile(one, options);
            }
        }
        return 0;
    }
    std::printf("%-44s", "ms of processor time at MB:");
    for (int step = 0; step <= options.doublings; ++step) {
        std::printf(" %10.4g", options.from * (1 << step));
    }
    std::printf(" %8s %8s %8s\n", "exponent", "peak MB", "outcome");
    bool good = true;
    for (const Case& one : cases) {
        good = report(one, options) && good;
    }
    return good || std::isinf(options.most) ? 0 : 1;
}
