#include "scan/ScanOptions.h"

#include <charconv>

namespace velquin::scan {

const char* const helpText =
    "Usage: velquin-scan [OPTIONS] PATH...\n"
    "Analyses the tempo and key of every audio file in the given files and folders (folders are\n"
    "searched recursively; hidden entries are skipped) and prints one result per file, sorted by path.\n"
    "\n"
    "  -j, --jobs N            analyse N files at a time (default: the number of cores)\n"
    "      --range RANGE       tempo range: auto, verySlow, slow, standard, fast (default: auto)\n"
    "      --analysis A        specified (the live engine's, default) or precise (slower, more often\n"
    "                          right; its confidences are calibrated)\n"
    "      --format FORMAT     table (the `velquin --analyze` line), csv or json (JSON Lines);\n"
    "                          default: table on a terminal, csv otherwise\n"
    "      --write-tags        write the key and BPM into each file's tags\n"
    "      --key-notation N    what the key tag holds: standard (\"Am\", default) or camelot (\"8A\");\n"
    "                          the other notation goes into a second field\n"
    "      --touch             give tagged files a new modification time (kept by default)\n"
    "      --force             analyse again even files the cache knows\n"
    "  -h, --help              show this help\n"
    "      --version           show the version\n"
    "\n"
    "Results are remembered in $XDG_CACHE_HOME/Velquin/scan.sqlite.\n"
    "Exit status: 0 when every file was analysed (and tagged), 1 when some failed or a folder\n"
    "could not be searched, 2 on a usage error, 130 when interrupted by Ctrl-C, 143 by SIGTERM.\n";

namespace {

std::optional<OutputFormat> formatFromText(const std::string& text) {
    if (text == "table") return OutputFormat::table;
    if (text == "csv") return OutputFormat::csv;
    if (text == "json") return OutputFormat::json;
    return std::nullopt;
}

std::optional<int> jobsFromText(const std::string& text) {
    int jobs = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), jobs);
    if (error != std::errc() || end != text.data() + text.size() || jobs < 1 || jobs > 1024)
        return std::nullopt;
    return jobs;
}

}  // namespace

ParsedOptions parseOptions(const std::vector<std::string>& arguments, int defaultJobs,
                           bool stdoutIsTerminal) {
    ScanOptions options;
    options.jobs = defaultJobs < 1 ? 1 : defaultJobs;
    options.format = stdoutIsTerminal ? OutputFormat::table : OutputFormat::csv;
    const auto fail = [](std::string message) { return ParsedOptions{std::nullopt, std::move(message)}; };

    bool onlyPaths = false;
    for (size_t i = 0; i < arguments.size(); ++i) {
        std::string argument = arguments[i];
        if (onlyPaths || argument.empty() || argument[0] != '-' || argument == "-") {
            options.paths.push_back(argument);
            continue;
        }
        if (argument == "--") {
            onlyPaths = true;
            continue;
        }
        // "--name=value" and "--name value" alike.
        std::optional<std::string> inlineValue;
        if (const size_t equals = argument.find('=');
            argument.starts_with("--") && equals != std::string::npos) {
            inlineValue = argument.substr(equals + 1);
            argument.resize(equals);
        }
        const auto value = [&]() -> std::optional<std::string> {
            if (inlineValue) return inlineValue;
            if (i + 1 < arguments.size()) return arguments[++i];
            return std::nullopt;
        };
        const auto takesNoValue = [&] { return !inlineValue; };

        if ((argument == "-h" || argument == "--help") && takesNoValue()) {
            options.help = true;
        } else if (argument == "--version" && takesNoValue()) {
            options.version = true;
        } else if (argument == "--write-tags" && takesNoValue()) {
            options.writeTags = true;
        } else if (argument == "--touch" && takesNoValue()) {
            options.touch = true;
        } else if (argument == "--force" && takesNoValue()) {
            options.force = true;
        } else if (argument == "-j" || argument == "--jobs") {
            const auto text = value();
            const auto jobs = text ? jobsFromText(*text) : std::nullopt;
            if (!jobs) return fail("--jobs needs a whole number from 1 to 1024");
            options.jobs = *jobs;
        } else if (argument == "--range") {
            const auto text = value();
            const auto range = text ? tempoRangeFromTextName(*text) : std::nullopt;
            if (!range) return fail("--range needs one of auto, verySlow, slow, standard, fast");
            options.range = *range;
        } else if (argument == "--analysis") {
            const auto text = value();
            const auto analysis = text ? fileAnalysis::analysisFromTextName(*text) : std::nullopt;
            if (!analysis) return fail("--analysis needs one of specified, precise");
            options.analysis = *analysis;
        } else if (argument == "--format") {
            const auto text = value();
            const auto format = text ? formatFromText(*text) : std::nullopt;
            if (!format) return fail("--format needs one of table, csv, json");
            options.format = *format;
        } else if (argument == "--key-notation") {
            const auto text = value();
            if (!text || (*text != "standard" && *text != "camelot"))
                return fail("--key-notation needs standard or camelot");
            options.camelotTags = *text == "camelot";
        } else {
            return fail("unknown option " + arguments[i]);
        }
    }
    if (options.paths.empty() && !options.help && !options.version) return fail("no file or folder given");
    return {options, {}};
}

}  // namespace velquin::scan
