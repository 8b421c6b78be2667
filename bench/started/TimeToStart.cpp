// Times commands from their start to the start of the program they launch:
// each command runs with its standard output on a pipe, and the launched
// program (bench_stamp) writes the monotonic clock there first thing in main.
// The commands take turns, so that a disturbance of the machine hits all alike.
//
//   bench_time_to_start RUNS NAME COMMAND [NAME COMMAND ...]
//
// A COMMAND is split at blanks (no quoting). Prints a Markdown table.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <numeric>
#include <stdexcept>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

long long monotonicNow() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

struct Command {
    std::string name;
    std::vector<std::string> words;
    std::vector<double> milliseconds;
};

// One run: the time from just before the fork to the launched program's stamp.
double runOnce(const Command& command) {
    int pipeEnds[2];
    if (::pipe(pipeEnds) != 0) throw std::runtime_error("pipe failed");
    const long long start = monotonicNow();
    const pid_t child = ::fork();
    if (child < 0) throw std::runtime_error("fork failed");
    if (child == 0) {
        ::dup2(pipeEnds[1], 1);
        ::close(pipeEnds[0]);
        ::close(pipeEnds[1]);
        std::vector<char*> argv;
        for (const std::string& word : command.words) argv.push_back(const_cast<char*>(word.c_str()));
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(pipeEnds[1]);
    // Read to the end: the command and the program it started both close the pipe by exiting.
    std::string output;
    char buffer[4096];
    for (ssize_t count; (count = ::read(pipeEnds[0], buffer, sizeof buffer)) > 0;)
        output.append(buffer, static_cast<std::size_t>(count));
    ::close(pipeEnds[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    const std::size_t at = output.find("STARTED ");
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || at == std::string::npos)
        throw std::runtime_error("'" + command.name + "' did not start bench_stamp (exit status " +
                                 std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + "); it printed:\n" +
                                 output);
    const long long started = std::atoll(output.c_str() + at + 8);
    return static_cast<double>(started - start) / 1e6;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 4 || argc % 2 != 0) {
        std::fprintf(stderr, "usage: %s RUNS NAME COMMAND [NAME COMMAND ...]\n", argv[0]);
        return 2;
    }
    const int runs = std::atoi(argv[1]);
    std::vector<Command> commands;
    for (int index = 2; index + 1 < argc; index += 2) {
        Command command{argv[index], {}, {}};
        std::istringstream words(argv[index + 1]);
        for (std::string word; words >> word;) command.words.push_back(word);
        commands.push_back(command);
    }
    try {
        constexpr int WarmUpRuns = 5;
        for (int run = 0; run < WarmUpRuns + runs; ++run)
            for (Command& command : commands) {
                const double milliseconds = runOnce(command);
                if (run >= WarmUpRuns) command.milliseconds.push_back(milliseconds);
            }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_time_to_start: %s\n", error.what());
        return 1;
    }
    std::printf("| Command | Mean [ms] | Median [ms] | Min [ms] |\n|:---|---:|---:|---:|\n");
    for (Command& command : commands) {
        std::vector<double>& values = command.milliseconds;
        std::sort(values.begin(), values.end());
        const double mean = std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
        std::printf("| `%s` | %.2f | %.2f | %.2f |\n", command.name.c_str(), mean, values[values.size() / 2],
                    values.front());
    }
    return 0;
}
