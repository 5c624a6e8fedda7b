// ternview: the command line of the mail filter's reference host.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <iostream>

#include "command_line.h"
#include "json_output.h"
#include "messages.h"
#include "output_files.h"
#include "worker_process.h"

namespace {

using namespace ternview;

OutputPlan planOutput(const CommandLine& line) {
    return {line.out, std::filesystem::path(line.job.file).stem().string()};
}

struct DiscardAtEnd {
    OutputFiles& outputs;
    ~DiscardAtEnd() { outputs.discard(); }
};

/// Does the job; every failure but a signal ends up in the result.
JobResult run(const CommandLine& line, OutputFiles& outputs) {
    JobResult result;
    const HeldSignals signals;  // until all files have their names or are gone
    const DiscardAtEnd discard{outputs};
    try {
        Services services;
        result = runInWorker(line.job, services, outputs, line.timeLimit);
        if (exitCodeOf(result) == kExitDone) {
            outputs.commit();
        }
    } catch (const JobError& error) {
        result.failure = error.failure();
        result.detail = error.what();
    }
    return result;
}

void report(const CommandLine& line, const JobResult& result, const OutputFiles& outputs) {
    if (line.json) {
        writeStandardOutput(resultAsJson(result));
    }
    if (exitCodeOf(result) != kExitDone) {
        std::cerr << "ternview: " << failureMessage(result, line.job) << '\n';
        return;
    }
    if (line.quiet) {
        return;
    }
    for (const Help help : result.helps) {
        std::cerr << "ternview: " << helpNote(help, result, line.job) << '\n';
    }
    for (const std::string& note : {messageNumberNote(result, line.job), layoutNote(result, line.job)}) {
        if (!note.empty()) {
            std::cerr << "ternview: " << note << '\n';
        }
    }
    if (line.json) {
        return;
    }
    if (line.job.command == Command::kInfo) {
        writeStandardOutput(describeMessage(result, line.job));
    }
    for (const auto& path : outputs.written()) {
        writeStandardOutput(printableName(path.string()) + "\n");
    }
}

int runCommand(const CommandLine& line) {
    OutputFiles outputs(planOutput(line));
    const JobResult result = run(line, outputs);
    try {
        report(line, result, outputs);
    } catch (const JobError& error) {
        std::cerr << "ternview: " << error.what() << '\n';
        return kExitCannotShow;
    }
    return exitCodeOf(result);
}

/// A standard stream that whoever started the program had closed would give its number to the next file that is opened. It
/// stays unusable: its place is taken by what cannot be written to, or read from.
void occupyStandardStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(stream, F_GETFD) < 0) {
            static_cast<void>(::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY));  // the lowest free number
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    occupyStandardStreams();
    const auto parsed = parseCommandLine(argc, argv);
    if (const auto* exit = std::get_if<EarlyExit>(&parsed)) {
        return exit->code;
    }
    std::signal(SIGPIPE, SIG_IGN);  // a reader that went away is a failed write
    std::signal(SIGXFSZ, SIG_IGN);  // so is a file that may not grow
    std::signal(SIGCHLD, SIG_DFL);  // ignored, it would let the numbers of processes that ended be given out again
    try {
        if (const auto* list = std::get_if<ListRequest>(&parsed)) {
            return runList(*list);
        }
        if (const auto* exports = std::get_if<ExportRequest>(&parsed)) {
            return runExport(*exports);
        }
        return runCommand(std::get<CommandLine>(parsed));
    } catch (const Interrupted& interrupted) {
        std::signal(interrupted.signal, SIG_DFL);
        std::raise(interrupted.signal);
    } catch (const std::exception& error) {
        std::cerr << "ternview: " << error.what() << '\n';
    }
    return kExitCannotShow;
}
