#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "scan/ScanOptions.h"
#include "scan/ScanOutput.h"
#include "scan/Scanner.h"
#include "system/StandardStreams.h"

namespace {

std::atomic<int> stopSignal{0};

void onStopSignal(int signal) {
    int none = 0;
    stopSignal.compare_exchange_strong(none, signal);  // the first one decides the exit status
}

}  // namespace

int main(int argc, char** argv) {
    using namespace velquin::scan;
    velquin::holdClosedStandardStreams();
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const int cores = static_cast<int>(std::thread::hardware_concurrency());
    const ParsedOptions parsed = parseOptions(arguments, cores, ::isatty(STDOUT_FILENO) == 1);
    if (!parsed.options) {
        std::fprintf(stderr, "velquin-scan: %s\nTry 'velquin-scan --help'.\n",
                     shownText(parsed.error).c_str());
        return 2;
    }
    if (parsed.options->help) return printText(helpText, stdout, stderr);
    if (parsed.options->version) return printText("velquin-scan " VELQUIN_VERSION "\n", stdout, stderr);
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    return runScan(*parsed.options, stdout, stderr, stopSignal);
}
