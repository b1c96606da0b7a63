// counterfeed-report: what the GPU counters of a recorded trace did, on the terminal, as a table or as a
// page.

#include <fcntl.h>
#include <getopt.h>
#include <langinfo.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
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

#include "workstation/command_line/output.h"
#include "workstation/command_line/program.h"
#include "workstation/report/trace_file.h"
#include "workstation/report/writers.h"

namespace {

using namespace qel::vexa::report;  // NOLINT(google-build-using-namespace)
namespace command_line = qel::vexa::command_line;
using command_line::complain;
using command_line::fail;
using command_line::fail_usage;

constexpr const char* usage =
    "Usage: counterfeed-report [OPTION]... TRACE\n"
    "\n"
    "Shows the GPU counters of a recorded trace: a line for each counter that is selected by default, with "
    "its\n"
    "minimum, mean and maximum and, on a terminal, a small chart. TRACE may be - for the standard input.\n"
    "\n"
    "  -a, --all            show all counters of the trace, not just the default selection\n"
    "  -c, --csv[=FORM]     write comma-separated values: 'wide', a line for each sample (the default), or\n"
    "                       'long', a line for each value\n"
    "      --html           write a page with a chart for each counter, for a browser\n"
    "  -o, --output FILE    write to FILE, not to the standard output\n"
    "  -m, --match TEXT     only counters whose name holds TEXT, in any case; may be given several times\n"
    "      --from SECONDS   only what comes after so many seconds from the first sample\n"
    "      --to SECONDS     only what comes before\n"
    "      --bins NUMBER    time steps of a chart, at most (default 2048; of a page's overview 512)\n"
    "      --page-size MB   how large a page may become: what of the samples does not fit is left out "
    "(default 20)\n"
    "      --charts WHEN    charts in the summary: 'auto' (on a terminal, the default), 'always', 'never'\n"
    "  -q, --quiet          show no progress\n"
    "      --offered STATE  list the ids and names of the counters that a tracing service offers: STATE is "
    "a\n"
    "                       file with the output of 'perfetto --query-raw'\n"
    "  -h, --help           print this\n"
    "  -V, --version        print the version\n"
    "\n"
    "Exit status: 0 success, 1 the trace is damaged and what is readable of it was shown, 2 nothing could be "
    "shown.\n";

constexpr int exit_partly = 1;
constexpr int exit_unusable = 2;  // wrong usage too
constexpr std::uint64_t most_bins = 65536;

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
    std::optional<std::size_t> bins;
    std::uint64_t page_megabytes = 20;
};

// Opens a trace so that it can be read twice: what comes through a pipe goes to a temporary file first.
class trace_input {
public:
    // False, with the reason in errno, when there is nothing to read.
    bool open(const std::string& path) {
        const bool is_standard = path == "-";
        name_ = is_standard ? "standard input" : path;
        const std::string file = is_standard ? "/dev/stdin" : path;
        std::error_code ec;
        if (std::filesystem::is_regular_file(file, ec)) {
            file_.open(file, std::ios::binary);
            if (file_.is_open()) {
                return measure();
            }
        }
        if (is_standard) {
            return keep_copy(STDIN_FILENO);
        }
        const int source = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (source < 0) {
            return false;
        }
        const bool is_kept = keep_copy(source);
        const int reason = errno;
        ::close(source);
        errno = reason;
        return is_kept;
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
    bool keep_copy(int source) {
        std::string path = std::filesystem::temp_directory_path() / "counterfeed-report-XXXXXX";
        const int copy = mkstemp(path.data());
        if (copy < 0) {
            return false;
        }
        file_.open(path, std::ios::binary);
        unlink(path.c_str());
        const bool is_whole = file_.is_open() && copy_all(source, copy);
        return close(copy) == 0 && is_whole && measure();
    }
    static bool copy_all(int source, int target) {
        std::vector<char> piece(std::size_t{1} << 16);
        for (;;) {
            const ssize_t size = read(source, piece.data(), piece.size());
            if (size <= 0) {
                return size == 0;
            }
            for (ssize_t done = 0; done < size;) {
                const ssize_t written =
                    write(target, piece.data() + done, static_cast<std::size_t>(size - done));
                if (written < 0) {
                    return false;
                }
                done += written;
            }
        }
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
    std::ostream& open(const settings& wanted) {
        if (wanted.output.empty()) {
            return stream_;
        }
        name_ = wanted.output;
        std::error_code ec;
        if (std::filesystem::equivalent(wanted.trace, wanted.output, ec)) {
            fail(exit_unusable, name_ + " is the trace itself");
        }
        file_.open(wanted.output, std::ios::binary);
        if (!file_.is_open()) {
            fail(exit_unusable, "can't write " + name_ + ": " + std::strerror(errno));
        }
        stream_.rdbuf(file_.rdbuf());
        return stream_;
    }
    void finish() {
        if (!stream_.flush()) {
            fail(exit_unusable, "writing to " + name_ + " failed: " + std::strerror(errno));
        }
    }

private:
    std::ofstream file_;
    std::ostream stream_{std::cout.rdbuf()};
    std::string name_ = "standard output";
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
        const char* columns = std::getenv("COLUMNS");
        result.width = columns != nullptr ? std::strtoul(columns, nullptr, 10) : 0;
        if (result.width == 0) {
            result.width = command_line::terminal_width();
        }
        const char* kind = std::getenv("TERM");
        result.bold_headings =
            std::getenv("NO_COLOR") == nullptr && kind != nullptr && std::strcmp(kind, "dumb") != 0;
    }
    return result;
}

void tell(const std::vector<std::string>& problems, const std::string& trace) {
    for (const std::string& problem : problems) {
        complain(std::string(trace).append(": ").append(problem));
    }
}

int finish(result_output& output, const std::vector<std::string>& problems, const std::string& trace) {
    output.finish();
    tell(problems, trace);
    return problems.empty() ? EXIT_SUCCESS : exit_partly;
}

[[noreturn]] void fail_without_counters(const std::string& trace, std::uint64_t packets,
                                        const std::vector<std::string>& problems) {
    if (packets == 0) {
        fail(exit_unusable, trace + " is not a trace");
    }
    tell(problems, trace);
    fail(exit_unusable, trace + " has no samples of GPU counters");
}

// Whether any counter is left of what the trace has. If not, ends the process.
template <typename Sequences, typename HasWanted>
void check_match(const Sequences& sequences, const settings& wanted, const std::string& trace,
                 HasWanted has_wanted) {
    if (!wanted.match.empty() && std::none_of(sequences.begin(), sequences.end(), has_wanted)) {
        fail(exit_unusable, trace + " has no counter of that name");
    }
}

void check_time(const ordered_listener& reader, const std::string& trace) {
    if (reader.taken() == 0) {
        fail(exit_unusable, trace + " has samples of GPU counters, but none between --from and --to");
    }
}

void add_out_of_order(std::vector<std::string>& problems, const ordered_listener& reader) {
    if (const std::uint64_t count = reader.out_of_order(); count != 0) {
        problems.push_back(std::to_string(count) + (count == 1
                                                        ? " sample is left out: its time goes back"
                                                        : " samples are left out: their times go back"));
    }
}

std::uint64_t nanoseconds(double seconds) {
    return seconds < 1e9 ? static_cast<std::uint64_t>(std::llround(seconds * 1e9))
                         : std::numeric_limits<std::uint64_t>::max() / 2;
}

int report_trace(const settings& wanted) {
    trace_input input;
    const bool is_readable = input.open(wanted.trace);
    const std::string& name = input.name();
    if (!is_readable) {
        fail(exit_unusable, "can't read " + name + ": " + std::strerror(errno));
    }
    const bool shows_progress = !wanted.quiet && isatty(STDERR_FILENO) != 0;
    const bool is_csv = wanted.form == output_form::csv_wide || wanted.form == output_form::csv_long;
    const bool has_limits = wanted.from || wanted.to;
    selection selected{.names = wanted.match};
    trace_survey survey;
    if (is_csv || has_limits) {
        monitor first_look(survey, input, shows_progress);
        const std::uint64_t packets = first_look.read("Looking for counters");
        survey.flush();
        if (survey.taken() == 0) {
            fail_without_counters(name, packets, first_look.problems());
        }
        if (has_limits) {
            selected.from = survey.first() + nanoseconds(wanted.from.value_or(0));
        }
        if (wanted.to) {
            selected.to = survey.first() + nanoseconds(*wanted.to);
        }
    }

    result_output output;
    if (is_csv) {
        check_match(survey.sequences(), wanted, name, [&selected](const auto& entry) {
            return std::any_of(entry.second.begin(), entry.second.end(),
                               [&](const counter_description& counter) { return selected.has(counter); });
        });
        csv_writer writer(output.open(wanted), survey, selected, wanted.form == output_form::csv_long);
        monitor reader(writer, input, shows_progress);
        reader.read("Writing");
        writer.flush();
        check_time(writer, name);
        std::vector<std::string> problems = reader.problems();
        add_out_of_order(problems, writer);
        return finish(output, problems, name);
    }

    const bool is_page = wanted.form == output_form::html;
    trace_summary summary(wanted.bins.value_or(is_page ? 512 : 2048), selected);
    monitor reader(summary, input, shows_progress);
    const std::uint64_t packets = reader.read("Reading");
    const auto& sequences = summary.finish();
    std::vector<std::string> problems = reader.problems();
    if (has_limits) {
        check_time(summary, name);
    } else if (summary.taken() == 0) {
        fail_without_counters(name, packets, problems);
    }
    check_match(sequences, wanted, name, [](const auto& entry) { return !entry.second.series.empty(); });
    add_out_of_order(problems, summary);
    if (summary.undescribed() != 0) {
        complain(
            name +
            ": the descriptions of some counters are lost, as happens when a ring buffer overflows; these "
            "counters are shown by their ids");
    }
    std::ostream& out = output.open(wanted);
    if (wanted.form == output_form::html) {
        const std::size_t base = page_base_size(sequences);
        const std::size_t limit = wanted.page_megabytes * 1'000'000;
        page_levels levels(sequences, selected, page_origin(sequences), limit > base ? limit - base : 0);
        if (std::any_of(sequences.begin(), sequences.end(),
                        [](const auto& entry) { return page_levels::level_count(entry.second) != 0; })) {
            monitor(levels, input, shows_progress).read("Packing samples");
            levels.finish();
        }
        write_page(out, {.file = std::filesystem::path(name).filename(),
                         .file_size = input.size(),
                         .sequences = sequences,
                         .problems = problems,
                         .levels = levels});
    } else {
        write_summary(out, sequences, terminal_settings(wanted));
    }
    return finish(output, problems, name);
}

[[noreturn]] void list_offered(const char* path) {
    const std::optional<std::string> bytes = read_file(path);
    if (!bytes) {
        fail(exit_unusable, std::string("can't read ") + path + ": " + std::strerror(errno));
    }
    const std::vector<counter_description> counters = read_offered_counters(*bytes);
    if (counters.empty()) {
        fail(exit_unusable, std::string("no GPU counters are offered in ") + path);
    }
    for (const counter_description& counter : counters) {
        std::printf("%u\t%s\n", counter.id, counter.name.c_str());
    }
    command_line::finish(exit_unusable);
}

void set_form(settings& wanted, output_form form) {
    if (wanted.form != output_form::summary && wanted.form != form) {
        fail_usage("there is one output: the summary, one form of --csv, or --html");
    }
    wanted.form = form;
}

double seconds_argument(const char* option, const std::string& text) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || !std::isfinite(value) || value < 0) {
        fail_usage(std::string(option) + " is a number of seconds, not \"" + text + "\"");
    }
    return value;
}

int run(int argument_count, char** arguments) {
    enum long_option { html = 256, from, to, bins, page_size, charts, offered };
    const option options[] = {{"all", no_argument, nullptr, 'a'},
                              {"csv", optional_argument, nullptr, 'c'},
                              {"html", no_argument, nullptr, html},
                              {"output", required_argument, nullptr, 'o'},
                              {"match", required_argument, nullptr, 'm'},
                              {"from", required_argument, nullptr, from},
                              {"to", required_argument, nullptr, to},
                              {"bins", required_argument, nullptr, bins},
                              {"page-size", required_argument, nullptr, page_size},
                              {"charts", required_argument, nullptr, charts},
                              {"quiet", no_argument, nullptr, 'q'},
                              {"offered", required_argument, nullptr, offered},
                              {"help", no_argument, nullptr, 'h'},
                              {"version", no_argument, nullptr, 'V'},
                              {nullptr, 0, nullptr, 0}};
    std::ios::sync_with_stdio(false);
    settings wanted;
    for (int letter = 0;
         (letter = getopt_long(argument_count, arguments, "ac::o:m:qhV", options, nullptr)) != -1;) {
        const std::string value = optarg != nullptr ? optarg : "";
        switch (letter) {
            case 'a':
                wanted.all = true;
                break;
            case 'c': {
                const std::string form = value.empty() ? "wide" : value;
                if (form != "wide" && form != "long") {
                    fail_usage("the form of --csv is wide or long, not \"" + form + "\"");
                }
                set_form(wanted, form == "wide" ? output_form::csv_wide : output_form::csv_long);
                break;
            }
            case html:
                set_form(wanted, output_form::html);
                break;
            case 'o':
                wanted.output = value;
                break;
            case 'm':
                wanted.match.push_back(value);
                break;
            case from:
                wanted.from = seconds_argument("--from", value);
                break;
            case to:
                wanted.to = seconds_argument("--to", value);
                break;
            case bins:
                wanted.bins = static_cast<std::size_t>(
                    command_line::number_argument("--bins", value.c_str(), 2, most_bins) / 2 * 2);
                break;
            case page_size:
                wanted.page_megabytes = command_line::number_argument("--page-size", value.c_str(), 1, 1000);
                break;
            case charts:
                wanted.charts = value;
                if (wanted.charts != "auto" && wanted.charts != "always" && wanted.charts != "never") {
                    fail_usage("--charts is auto, always or never, not \"" + wanted.charts + "\"");
                }
                break;
            case 'q':
                wanted.quiet = true;
                break;
            case offered:
                list_offered(value.c_str());
            case 'h':
                std::fputs(usage, stdout);
                command_line::finish(exit_unusable);
            case 'V':
                command_line::print_version();
                command_line::finish(exit_unusable);
            default:
                fail_usage("");  // getopt has said what is wrong
        }
    }
    if (optind != argument_count - 1) {
        fail_usage(optind == argument_count ? "the trace is missing" : "one trace at a time");
    }
    if (wanted.from.value_or(0) > wanted.to.value_or(HUGE_VAL)) {
        fail_usage("--from lies behind --to");
    }
    wanted.trace = arguments[optind];
    if (wanted.form == output_form::html && wanted.output.empty() && isatty(STDOUT_FILENO) != 0) {
        fail_usage("a page is for a browser: say where it goes with --output FILE");
    }
    return report_trace(wanted);
}

}  // namespace

int main(int argument_count, char** arguments) {
    try {
        return run(argument_count, arguments);
    } catch (const std::exception& error) {
        fail(exit_unusable, error.what());
    }
}
