#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "ScanOptions.h"
#include "Scanner.h"

namespace {

std::atomic<bool> interrupted{false};

void onInterrupt(int) {
    interrupted.store(true);
}

}  // namespace

int main(int argc, char** argv) {
    using namespace velquin::scan;
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const int cores = static_cast<int>(std::thread::hardware_concurrency());
    const ParsedOptions parsed = parseOptions(arguments, cores, ::isatty(STDOUT_FILENO) == 1);
    if (!parsed.options) {
        std::fprintf(stderr, "velquin-scan: %s\nTry 'velquin-scan --help'.\n", parsed.error.c_str());
        return 2;
    }
    if (parsed.options->help) {
        std::fputs(kHelpText, stdout);
        return 0;
    }
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    return runScan(*parsed.options, stdout, stderr, interrupted);
}
