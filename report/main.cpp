// counterfeed-report: what the GPU counters of a recorded trace did, on the terminal, as a table or as a
// page.

#include <getopt.h>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <limits>
#include <optional>

#include "report/trace_file.h"
#include "report/writers.h"

namespace {

using namespace qel::vexa::report;  // NOLINT(google-build-using-namespace)

constexpr const char* usage =
    "Usage: counterfeed-report [OPTION]... TRACE\n"
    "\n"
    "Shows the GPU counters of a recorded trace: a line for each counter that is selected by default, with "
    "its\n"
    "minimum, mean and maximum and, on a terminal, a small chart. TRACE may be - for the standard input.\n"
    "\n"
    "  -a, --all            show all counters of the trace, not just the default selection\n"
    "      --csv[=FORM]     write comma-separated values: 'wide', a line for each sample (the default), or\n"
    "                       'long', a line for each value\n"
    "      --html           write a page with a chart for each counter, for a browser\n"
    "  -o, --output FILE    write to FILE, not to the standard output\n"
    "  -m, --match TEXT     only counters whose name holds TEXT, in any case; may be given several times\n"
    "      --from SECONDS   only what comes after so many seconds from the first sample\n"
    "      --to SECONDS     only what comes before\n"
    "      --bins NUMBER    time steps of a chart, at most (default 2048)\n"
    "      --charts WHEN    charts in the summary: 'auto' (on a terminal, the default), 'always', 'never'\n"
    "  -q, --quiet          show no progress\n"
    "      --offered STATE  list the ids and names of the counters that a tracing service offers: STATE is "
    "a\n"
    "                       file with the output of 'perfetto --query-raw'\n"
    "  -h, --help           show this help\n"
    "  -V, --version        show the version\n"
    "\n"
    "The status is 0 if all went well, 1 if the trace is damaged and what is readable of it was shown, and 2 "
    "if\n"
    "nothing could be shown.\n";

constexpr int exit_partly = 1;
constexpr int exit_unusable = 2;

enum class output_form { summary, csv_wide, csv_long, html };

struct settings {
    std::string trace;
    std::string output;  // empty for the standard output
    output_form form = output_form::summary;
    bool all = false;
    bool quiet = false;
    std::string charts = "auto";
    std::vector<std::string> match;
    std::optional<double> from;
    std::optional<double> to;
    std::size_t bins = 2048;
};

template <typename... Arguments>
int fail(const char* format, Arguments... arguments) {
    std::fputs("counterfeed-report: ", stderr);
    std::fprintf(stderr, format, arguments...);
    std::fputc('\n', stderr);
    return exit_unusable;
}

// Opens a trace so that it can be read twice: what comes through a pipe goes to a temporary file first.
class trace_input {
public:
    bool open(const std::string& path) {
        name_ = path == "-" ? "standard input" : path;
        const std::string device = path == "-" ? "/dev/stdin" : path;
        std::error_code ec;
        const auto type = std::filesystem::status(device, ec).type();
        if (type == std::filesystem::file_type::directory) {
            return false;
        }
        file_.open(device, std::ios::binary);
        if (file_.is_open() && type != std::filesystem::file_type::regular) {
            return keep_copy();
        }
        return measure();
    }
    std::istream& rewind() {
        file_.clear();
        file_.seekg(0);
        return file_;
    }
    std::uint64_t size() const { return size_; }
    const std::string& name() const { return name_; }
    bool has_failed() const { return file_.bad(); }

private:
    bool keep_copy() {
        std::string path = std::filesystem::temp_directory_path() / "counterfeed-report-XXXXXX";
        const int descriptor = mkstemp(path.data());
        if (descriptor < 0) {
            return false;
        }
        close(descriptor);
        bool is_copied = false;
        {
            std::ofstream copy(path, std::ios::binary);
            is_copied = file_.peek() == std::char_traits<char>::eof() || copy << file_.rdbuf();
            is_copied = is_copied && copy.flush();
        }
        file_.close();
        file_.open(path, std::ios::binary);
        unlink(path.c_str());
        return is_copied && measure();
    }
    bool measure() {
        file_.seekg(0, std::ios::end);
        size_ = static_cast<std::uint64_t>(std::max<std::streamoff>(file_.tellg(), 0));
        return file_.good();
    }

    std::ifstream file_;
    std::string name_;
    std::uint64_t size_ = 0;
};

// Reads a trace for a listener, with progress on the terminal, and remembers what could not be read.
class monitor : public trace_listener {
public:
    monitor(trace_listener& target, trace_input& input, bool shows_progress)
        : target_(target), input_(input), shows_progress_(shows_progress) {}

    std::uint64_t read(const char* activity) {
        activity_ = activity;
        const std::uint64_t packets = read_trace(input_.rewind(), *this);
        if (is_shown_) {
            std::fputs("\r\x1b[K", stderr);
        }
        if (input_.has_failed()) {
            on_unreadable({input_.size(), 0, "the file can't be read on"});
        }
        return packets;
    }

    void on_counters(std::uint32_t sequence, const std::vector<counter_description>& counters) override {
        target_.on_counters(sequence, counters);
    }
    void on_sample(std::uint32_t sequence, const counter_sample& sample) override {
        target_.on_sample(sequence, sample);
    }
    void on_unreadable(const unreadable_part& part) override {
        constexpr std::size_t most_problems = 10;
        ++unreadable_;
        unreadable_bytes_ += part.size;
        if (problems_.size() < most_problems) {
            problems_.push_back(std::to_string(part.size) + " bytes at offset " +
                                std::to_string(part.offset) + " are not readable: " + part.reason);
        }
    }
    void on_progress(std::uint64_t bytes) override {
        using namespace std::chrono_literals;
        const auto now = std::chrono::steady_clock::now();
        if (!shows_progress_ || now - last_ < 100ms) {
            return;
        }
        last_ = now;
        is_shown_ = true;
        const double megabytes = static_cast<double>(input_.size()) / 1e6;
        std::fprintf(stderr, "\r%s: %.0f %% of %.0f MB\x1b[K", activity_,
                     static_cast<double>(bytes) / 1e4 / megabytes, megabytes);
    }

    std::vector<std::string> problems() const {
        std::vector<std::string> result = problems_;
        if (unreadable_ > problems_.size()) {
            result.push_back(std::to_string(unreadable_ - problems_.size()) +
                             " more parts are not readable, " + std::to_string(unreadable_bytes_) +
                             " bytes with those above");
        }
        return result;
    }

private:
    trace_listener& target_;
    trace_input& input_;
    const bool shows_progress_;
    const char* activity_ = "";
    bool is_shown_ = false;
    std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
    std::vector<std::string> problems_;
    std::uint64_t unreadable_ = 0;
    std::uint64_t unreadable_bytes_ = 0;
};

// Where the result goes. Nothing is touched before the trace has been found good.
class result_output {
public:
    std::ostream* open(const settings& wanted) {
        name_ = wanted.output.empty() ? "standard output" : wanted.output;
        if (wanted.output.empty()) {
            return stream_ = &std::cout;
        }
        std::error_code ec;
        if (std::filesystem::equivalent(wanted.trace, wanted.output, ec)) {
            fail("%s is the trace itself", wanted.output.c_str());
            return nullptr;
        }
        file_.open(wanted.output, std::ios::binary);
        if (!file_.is_open()) {
            fail("can't write %s: %s", wanted.output.c_str(), std::strerror(errno));
            return nullptr;
        }
        return stream_ = &file_;
    }
    // Whether all of it arrived.
    bool finish() {
        if (stream_->flush()) {
            return true;
        }
        fail("writing to %s failed: %s", name_.c_str(), std::strerror(errno));
        return false;
    }

private:
    std::ofstream file_;
    std::ostream* stream_ = nullptr;
    std::string name_;
};

terminal_options terminal_settings(const settings& wanted) {
    std::setlocale(LC_CTYPE, "");
    const bool is_terminal = wanted.output.empty() && isatty(STDOUT_FILENO) != 0;
    terminal_options result;
    result.all = wanted.all;
    if (wanted.charts == "always" || (wanted.charts == "auto" && is_terminal)) {
        const bool has_blocks = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
        result.charts = has_blocks ? chart_style::blocks : chart_style::ascii;
    }
    if (is_terminal) {
        winsize size{};
        const char* columns = std::getenv("COLUMNS");
        result.width = columns != nullptr ? std::strtoul(columns, nullptr, 10) : 0;
        if (result.width == 0 && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) {
            result.width = size.ws_col;
        }
        const char* kind = std::getenv("TERM");
        result.bold_headings =
            std::getenv("NO_COLOR") == nullptr && kind != nullptr && std::strcmp(kind, "dumb") != 0;
    }
    return result;
}

int finish(result_output& output, const std::vector<std::string>& problems, const std::string& trace) {
    if (!output.finish()) {
        return exit_unusable;
    }
    for (const std::string& problem : problems) {
        fail("%s: %s", trace.c_str(), problem.c_str());
    }
    return problems.empty() ? EXIT_SUCCESS : exit_partly;
}

int no_counters(const std::string& trace, std::uint64_t packets, const std::vector<std::string>& problems) {
    if (packets == 0) {
        return fail("%s is not a trace", trace.c_str());
    }
    for (const std::string& problem : problems) {
        fail("%s: %s", trace.c_str(), problem.c_str());
    }
    return fail("%s has no samples of GPU counters", trace.c_str());
}

// Whether any counter is left of what the trace has; says so if not.
template <typename Sequences, typename HasWanted>
bool has_match(const Sequences& sequences, const settings& wanted, HasWanted has_wanted) {
    if (wanted.match.empty() || std::any_of(sequences.begin(), sequences.end(), has_wanted)) {
        return true;
    }
    fail("%s has no counter of that name", wanted.trace.c_str());
    return false;
}

std::uint64_t nanoseconds(double seconds) {
    return seconds < 1e9 ? static_cast<std::uint64_t>(std::llround(seconds * 1e9))
                         : std::numeric_limits<std::uint64_t>::max() / 2;
}

int report_trace(const settings& wanted) {
    trace_input input;
    if (!input.open(wanted.trace)) {
        return fail("can't read %s", wanted.trace.c_str());
    }
    const std::string& name = input.name();
    const bool shows_progress = !wanted.quiet && isatty(STDERR_FILENO) != 0;
    const bool is_csv = wanted.form == output_form::csv_wide || wanted.form == output_form::csv_long;
    selection selected{.names = wanted.match};
    trace_survey survey;
    if (is_csv || wanted.from || wanted.to) {
        monitor first_look(survey, input, shows_progress);
        const std::uint64_t packets = first_look.read("Looking for counters");
        if (survey.sequences().empty()) {
            return no_counters(name, packets, first_look.problems());
        }
        selected.from = survey.first() + nanoseconds(wanted.from.value_or(0));
        if (wanted.to) {
            selected.to = survey.first() + nanoseconds(*wanted.to);
        }
    }

    result_output output;
    if (is_csv) {
        if (!has_match(survey.sequences(), wanted, [&selected](const auto& entry) {
                return std::any_of(entry.second.begin(), entry.second.end(),
                                   [&](const counter_description& counter) { return selected.has(counter); });
            })) {
            return exit_unusable;
        }
        std::ostream* out = output.open(wanted);
        if (out == nullptr) {
            return exit_unusable;
        }
        csv_writer writer(*out, survey, selected, wanted.form == output_form::csv_long);
        monitor reader(writer, input, shows_progress);
        reader.read("Writing");
        return finish(output, reader.problems(), name);
    }

    trace_summary summary(wanted.bins, selected);
    monitor reader(summary, input, shows_progress);
    const std::uint64_t packets = reader.read("Reading");
    const auto& sequences = summary.finish();
    std::vector<std::string> problems = reader.problems();
    if (std::none_of(sequences.begin(), sequences.end(),
                     [](const auto& entry) { return entry.second.samples != 0; })) {
        return no_counters(name, packets, problems);
    }
    if (!has_match(sequences, wanted, [](const auto& entry) { return !entry.second.series.empty(); })) {
        return exit_unusable;
    }
    if (summary.out_of_order() != 0) {
        problems.push_back(std::to_string(summary.out_of_order()) +
                           " samples are left out: their times go back");
    }
    if (summary.undescribed() != 0) {
        std::fprintf(stderr,
                     "counterfeed-report: %s: the descriptions of some counters are lost, as happens when a "
                     "ring buffer overflows; these counters are shown by their ids\n",
                     name.c_str());
    }
    std::ostream* out = output.open(wanted);
    if (out == nullptr) {
        return exit_unusable;
    }
    if (wanted.form == output_form::html) {
        write_page(*out, {.file = std::filesystem::path(name).filename(),
                          .file_size = input.size(),
                          .sequences = sequences,
                          .problems = problems});
    } else {
        write_summary(*out, sequences, terminal_settings(wanted));
    }
    return finish(output, problems, name);
}

int list_offered(const char* path) {
    const std::optional<std::string> bytes = read_file(path);
    const std::vector<counter_description> counters =
        bytes ? read_offered_counters(*bytes) : std::vector<counter_description>();
    if (counters.empty()) {
        return fail("no GPU counters are offered in %s", path);
    }
    for (const counter_description& counter : counters) {
        std::printf("%u\t%s\n", counter.id, counter.name.c_str());
    }
    return EXIT_SUCCESS;
}

// A number from 0 on that takes up the whole text.
std::optional<double> parse_number(const char* text) {
    char* end = nullptr;
    const double value = text != nullptr ? std::strtod(text, &end) : 0;
    return text != nullptr && end != text && *end == '\0' && std::isfinite(value) && value >= 0
               ? std::optional(value)
               : std::nullopt;
}

int wrong_use(const char* problem, const char* argument) {
    return fail("%s%s\nTry 'counterfeed-report --help'.", problem, argument);
}

int run(int argument_count, char** arguments) {
    enum long_option { csv = 256, html, from, to, bins, charts, offered };
    const option options[] = {{"all", no_argument, nullptr, 'a'},
                              {"csv", optional_argument, nullptr, csv},
                              {"html", no_argument, nullptr, html},
                              {"output", required_argument, nullptr, 'o'},
                              {"match", required_argument, nullptr, 'm'},
                              {"from", required_argument, nullptr, from},
                              {"to", required_argument, nullptr, to},
                              {"bins", required_argument, nullptr, bins},
                              {"charts", required_argument, nullptr, charts},
                              {"quiet", no_argument, nullptr, 'q'},
                              {"offered", required_argument, nullptr, offered},
                              {"help", no_argument, nullptr, 'h'},
                              {"version", no_argument, nullptr, 'V'},
                              {nullptr, 0, nullptr, 0}};
    std::ios::sync_with_stdio(false);
    settings wanted;
    for (int letter = 0;
         (letter = getopt_long(argument_count, arguments, "ao:m:qhV", options, nullptr)) != -1;) {
        switch (letter) {
            case 'a':
                wanted.all = true;
                break;
            case csv:
                if (optarg != nullptr && std::strcmp(optarg, "wide") != 0 &&
                    std::strcmp(optarg, "long") != 0) {
                    return wrong_use("the form is 'wide' or 'long', not ", optarg);
                }
                wanted.form = optarg != nullptr && std::strcmp(optarg, "long") == 0 ? output_form::csv_long
                                                                                    : output_form::csv_wide;
                break;
            case html:
                wanted.form = output_form::html;
                break;
            case 'o':
                wanted.output = optarg;
                break;
            case 'm':
                wanted.match.emplace_back(optarg);
                break;
            case from:
            case to:
                if (!((letter == from ? wanted.from : wanted.to) = parse_number(optarg))) {
                    return wrong_use("not a number of seconds: ", optarg);
                }
                break;
            case bins: {
                constexpr double most_bins = 65536;
                const std::optional<double> number = parse_number(optarg);
                if (!number || *number < 2 || *number > most_bins) {
                    return wrong_use("the number of bins is 2 to 65536, not ", optarg);
                }
                wanted.bins = static_cast<std::size_t>(*number) / 2 * 2;
                break;
            }
            case charts:
                wanted.charts = optarg;
                if (wanted.charts != "auto" && wanted.charts != "always" && wanted.charts != "never") {
                    return wrong_use("charts are 'auto', 'always' or 'never', not ", optarg);
                }
                break;
            case 'q':
                wanted.quiet = true;
                break;
            case offered:
                return list_offered(optarg);
            case 'h':
                std::fputs(usage, stdout);
                return EXIT_SUCCESS;
            case 'V':
                std::puts("counterfeed-report " COUNTERFEED_VERSION);
                return EXIT_SUCCESS;
            default:
                std::fputs("Try 'counterfeed-report --help'.\n", stderr);  // getopt has said what is wrong
                return exit_unusable;
        }
    }
    if (optind != argument_count - 1) {
        return wrong_use(optind == argument_count ? "no trace is named" : "one trace at a time", "");
    }
    wanted.trace = arguments[optind];
    if (wanted.form == output_form::html && wanted.output.empty() && isatty(STDOUT_FILENO) != 0) {
        return wrong_use("a page is for a browser: say where it goes with -o FILE", "");
    }
    return report_trace(wanted);
}

}  // namespace

int main(int argument_count, char** arguments) {
    try {
        return run(argument_count, arguments);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "counterfeed-report: %s\n", error.what());
        return exit_unusable;
    }
}
