// counterfeed-report: what the GPU counters of a recorded trace did, on the terminal, as a table or as a
// page.

#include <fcntl.h>
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
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "workstation/command_line/options.h"
#include "workstation/command_line/output.h"
#include "workstation/command_line/program.h"
#include "workstation/report/by_frame.h"
#include "workstation/report/compare.h"
#include "workstation/report/frames.h"
#include "workstation/report/json_values.h"
#include "workstation/report/text_layout.h"
#include "workstation/report/trace_file.h"
#include "workstation/report/writers.h"

namespace {

using namespace qel::vexa::report;  // NOLINT(google-build-using-namespace)
namespace command_line = qel::vexa::command_line;
using command_line::complain;
using command_line::fail;
using command_line::fail_usage;

constexpr int exit_partly = 1;
constexpr int exit_unusable = 2;  // wrong usage too
constexpr int exit_gate = 3;
constexpr std::uint64_t most_bins = 65536;
constexpr const char* all_layers = "any layer";  // when --by-frame stands alone

enum class output_form { summary, csv_wide, csv_long, html, json };

struct settings {
    std::string trace;
    std::string output;  // empty for the standard output
    output_form form = output_form::summary;
    bool all = false;
    bool quiet = false;
    std::string charts = "auto";
    std::optional<amount_form> amounts;  // per second, but in CSV per sample, when it is not said
    std::vector<std::string> match;
    std::optional<double> from;
    std::optional<double> to;
    std::optional<std::size_t> bins;
    std::uint64_t page_megabytes = 20;
    std::optional<std::string> by_frame;  // of layers whose names hold this; of all when empty
    // What is compared; empty when one trace is shown.
    std::vector<std::string> before;
    std::vector<std::string> after;
    std::vector<gate> gates;

    // A page has more than its overview.
    std::size_t page_bins() const { return bins.value_or(512); }
    std::size_t bin_limit() const {
        return form == output_form::html && before.empty() ? page_bins() : bins.value_or(2048);
    }
    bool is_csv() const { return form == output_form::csv_wide || form == output_form::csv_long; }
    bool has_limits() const { return from || to; }
    bool shows_progress() const { return !quiet && isatty(STDERR_FILENO) != 0; }
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
    monitor(trace_listener& target, trace_input& input, const settings& wanted)
        : target_(target), input_(input), shows_progress_(wanted.shows_progress()) {}

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
    void on_gpus(const std::vector<std::string>& names) override { target_.on_gpus(names); }
    void on_config(std::string_view config) override { target_.on_config(config); }
    void on_clocks(std::string_view snapshot) override { frames_.on_clocks(snapshot); }
    void on_frame_event(std::uint64_t time, std::uint32_t clock, std::string_view event) override {
        frames_.on_timeline_event(time, clock, event);
    }
    void on_buffer_event(std::uint64_t time, std::uint32_t clock, std::string_view event) override {
        frames_.on_buffer_event(time, clock, event);
    }
    frame_collector& frames() { return frames_; }

    void on_unreadable(const unreadable_part& part) override {
        constexpr std::size_t most_problems = 10;
        ++unreadable_;
        unreadable_bytes_ += part.size;
        if (problems_.size() < most_problems) {
            problems_.push_back(part.size == 0
                                    ? part.reason
                                    : std::to_string(part.size) + " bytes at offset " +
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
    frame_collector frames_;
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
        std::vector<std::string> traces = wanted.before;
        traces.insert(traces.end(), wanted.after.begin(), wanted.after.end());
        traces.push_back(wanted.trace);
        for (const std::string& trace : traces) {
            if (std::filesystem::equivalent(trace, wanted.output, ec)) {
                fail(exit_unusable, name_ + " is the trace itself");
            }
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
    result.all = wanted.all || !wanted.match.empty();
    result.limits = wanted.match.empty();
    result.amounts = wanted.amounts.value_or(amount_form::per_second);
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

void add_left_out(std::vector<std::string>& problems, const ordered_listener& reader) {
    if (const std::uint64_t count = reader.left_out(); count != 0) {
        problems.push_back(std::to_string(count) + (count == 1
                                                        ? " sample is left out: its time is damaged"
                                                        : " samples are left out: their times are damaged"));
    }
}

// Those of the wanted time.
std::vector<frame> frames_of(frame_collector& collector, const selection& wanted, const std::string& trace) {
    std::vector<frame> result = collector.finish();
    std::erase_if(result,
                  [&wanted](const frame& one) { return one.end < wanted.from || one.start > wanted.to; });
    if (collector.left_out() != 0) {
        complain(trace + ": " + std::to_string(collector.left_out()) +
                 " frames are left out: their clock is in no snapshot, or there are too many");
    }
    return result;
}

std::uint64_t nanoseconds(double seconds) {
    return seconds < 1e9 ? static_cast<std::uint64_t>(std::llround(seconds * 1e9))
                         : std::numeric_limits<std::uint64_t>::max() / 2;
}

// A trace that is being read, and what has been found in it.
struct open_trace {
    trace_input input;
    trace_survey survey;
    selection selected;

    // Ends the process when there is nothing to show.
    open_trace(const settings& wanted, const std::string& path) {
        if (!input.open(path)) {
            fail(exit_unusable, "can't read " + input.name() + ": " + std::strerror(errno));
        }
        selected.names = wanted.match;
        if ((!wanted.is_csv() || wanted.by_frame) && !wanted.has_limits()) {
            return;
        }
        monitor first_look(survey, input, wanted);
        const std::uint64_t packets = first_look.read("Looking for counters");
        survey.flush();
        if (survey.taken() == 0) {
            fail_without_counters(input.name(), packets, first_look.problems());
        }
        if (wanted.has_limits()) {
            selected.from = survey.first() + nanoseconds(wanted.from.value_or(0));
        }
        if (wanted.to) {
            selected.to = survey.first() + nanoseconds(*wanted.to);
        }
    }
};

// The same, summed up.
struct summed_trace : open_trace {
    trace_summary summary;
    const std::map<counter_source, sequence_summary>* sequences = nullptr;
    std::vector<std::string> problems;  // what could not be read
    std::vector<std::string> notes;     // what else is not as it should be
    std::vector<frame> frames;          // by their starts

    summed_trace(const settings& wanted, const std::string& path)
        : open_trace(wanted, path), summary(wanted.bin_limit(), selected) {
        monitor reader(summary, input, wanted);
        const std::uint64_t packets = reader.read("Reading");
        const std::string& name = input.name();
        sequences = &summary.finish();
        frames = frames_of(reader.frames(), selected, name);
        problems = reader.problems();
        if (wanted.has_limits()) {
            check_time(summary, name);
        } else if (summary.taken() == 0) {
            fail_without_counters(name, packets, problems);
        }
        check_match(*sequences, wanted, name, [](const auto& entry) { return !entry.second.series.empty(); });
        add_left_out(problems, summary);
        if (summary.undescribed() != 0) {
            complain(name +
                     ": the descriptions of some counters are lost, as happens when a ring buffer overflows; "
                     "these counters are shown by their ids");
        }
        notes = summary.missing();
        tell(notes, name);
    }

    // Of the source with the most samples. The others are forgotten.
    const sequence_summary& main_sequence(const char* what_happens) {
        if (sequences->size() > 1) {
            complain(input.name() + ": of several sequences the one with the most samples is " +
                     what_happens);
        }
        return summary.keep_largest();
    }

    page_source as_source(const settings& wanted) const {
        std::vector<std::string> all_notes = problems;
        all_notes.insert(all_notes.end(), notes.begin(), notes.end());
        return {.file = std::filesystem::path(input.name()).filename(),
                .file_size = input.size(),
                .sequences = *sequences,
                .problems = all_notes,
                .frames = frames,
                .amounts = wanted.amounts.value_or(amount_form::per_second)};
    }
};

int write_table(const settings& wanted) {
    open_trace trace(wanted, wanted.trace);
    const std::string& name = trace.input.name();
    check_match(trace.survey.sequences(), wanted, name, [&trace](const auto& entry) {
        return std::any_of(entry.second.begin(), entry.second.end(),
                           [&](const counter_description& counter) { return trace.selected.has(counter); });
    });
    result_output output;
    csv_writer writer(output.open(wanted), trace.survey, trace.selected, wanted.form == output_form::csv_long,
                      wanted.amounts.value_or(amount_form::per_sample));
    monitor reader(writer, trace.input, wanted);
    reader.read("Writing");
    writer.flush();
    check_time(writer, name);
    std::vector<std::string> problems = reader.problems();
    add_left_out(problems, writer);
    return finish(output, problems, name);
}

void tell_left_out(const frame_reader& reader, const std::string& trace) {
    if (reader.left_out() != 0) {
        complain(trace + ": " + std::to_string(reader.left_out()) +
                 " frames are left out: too many go on at a time");
    }
}

// What a page reads the samples once more for: its levels of detail, and what the longest frames have in
// common in each sequence.
class page_reader : public ordered_listener {
public:
    page_reader(page_levels& levels, const summed_trace& trace)
        : ordered_listener(trace.selected), levels_(levels) {
        for (const auto& [source, summary] : *trace.sequences) {
            if (summary.samples != 0 && !trace.frames.empty()) {
                frames_.try_emplace(source, source, summary, trace.selected, trace.frames,
                                    std::vector<const counter_series*>{}, amount_form::per_second, nullptr);
            }
        }
    }
    void on_counters(std::uint32_t /*sequence*/,
                     const std::vector<counter_description>& /*counters*/) override {}
    void take(const counter_source& source, const counter_sample& sample) override {
        levels_.take(source, sample);
        if (const auto found = frames_.find(source); found != frames_.end()) {
            found->second.take(source, sample);
        }
    }

    // To be called when the trace is read.
    std::vector<std::vector<layer_contrast>> finish(const std::string& trace) {
        flush();
        levels_.finish();
        std::vector<std::vector<layer_contrast>> result;
        for (auto& [source, reader] : frames_) {
            result.push_back(reader.finish());
            tell_left_out(reader, trace);
        }
        return result;
    }

private:
    page_levels& levels_;
    std::map<counter_source, frame_reader> frames_;
};

int report_trace(const settings& wanted) {
    summed_trace trace(wanted, wanted.trace);
    const auto& sequences = *trace.sequences;
    result_output output;
    std::ostream& out = output.open(wanted);
    page_source source = trace.as_source(wanted);
    if (wanted.form == output_form::html) {
        const std::size_t base = page_base_size(sequences, trace.frames.size());
        const auto limit = static_cast<std::size_t>(wanted.page_megabytes * 1'000'000);
        page_levels levels(sequences, trace.selected, page_origin(sequences),
                           limit > base ? limit - base : 0);
        page_reader reader(levels, trace);
        monitor again(reader, trace.input, wanted);
        again.read("Packing samples");
        const std::vector<std::vector<layer_contrast>> contrasts = reader.finish(trace.input.name());
        source.levels = &levels;
        source.contrasts = &contrasts;
        if (trace.frames.size() > most_page_frames) {
            complain(trace.input.name() + ": the page shows the " + std::to_string(most_page_frames) +
                     " longest of " + std::to_string(trace.frames.size()) + " frames");
        }
        write_page(out, source);
    } else if (wanted.form == output_form::json) {
        write_json(out, source);
    } else {
        const terminal_options options = terminal_settings(wanted);
        write_summary(out, sequences, options);
        if (!trace.frames.empty()) {
            out << '\n';
            write_wrapped(out, "Frames (--by-frame): " + frames_in_words(trace.frames),
                          options.width != 0 ? options.width : sentence_width, "  ");
        }
    }
    return finish(output, trace.problems, trace.input.name());
}

int report_by_frame(const settings& wanted) {
    summed_trace trace(wanted, wanted.trace);
    const std::string& name = trace.input.name();
    std::erase_if(trace.frames, [&wanted](const frame& one) {
        return layer_name(one.layer).find(*wanted.by_frame) == std::string::npos;
    });
    if (trace.frames.empty()) {
        fail(exit_unusable, name + " has no frames" + (wanted.by_frame->empty() ? "" : " of that layer"));
    }
    const sequence_summary& summary = trace.main_sequence("shown by frame");
    by_frame_source what{.file = std::filesystem::path(name).filename(),
                         .source = trace.sequences->begin()->first,
                         .summary = summary,
                         .frames = trace.frames,
                         .amounts = wanted.amounts.value_or(amount_form::per_second),
                         .columns = {}};
    const auto read = [&](const frame_reader::row_listener& on_row) {
        frame_reader reader(what.source, summary, trace.selected, trace.frames, what.columns, what.amounts,
                            on_row);
        monitor again(reader, trace.input, wanted);
        again.read("Summing up frames");
        std::vector<layer_contrast> layers = reader.finish();
        if (on_row) {
            tell_left_out(reader, name);
        }
        return layers;
    };
    const bool is_table = wanted.form == output_form::summary;
    if (is_table && wanted.match.empty()) {
        // There is room for a few counters: those in which the longest frames differ.
        for (const layer_contrast& layer : read(nullptr)) {
            for (const contrast& each : layer.common) {
                if (std::find(what.columns.begin(), what.columns.end(), each.series) == what.columns.end()) {
                    what.columns.push_back(each.series);
                }
            }
        }
    }
    if (what.columns.empty()) {
        for (const counter_series& series : summary.series) {
            if (series.total.count != 0) {
                what.columns.push_back(&series);
            }
        }
    }
    result_output output;
    std::ostream& out = output.open(wanted);
    const std::unique_ptr<by_frame_writer> writer =
        is_table                           ? by_frame_table(out, what, terminal_settings(wanted))
        : wanted.form == output_form::json ? by_frame_json(out, what)
                                           : by_frame_csv(out, what);
    writer->finish(read([&writer](std::size_t place, std::uint64_t samples,
                                  const std::vector<std::optional<double>>& values) {
        writer->row(place, samples, values);
    }));
    return finish(output, trace.problems, name);
}

// Both sides' first traces on a page.
void write_comparison_page(std::ostream& out, const settings& wanted, const comparison_output& result,
                           summed_trace& before, summed_trace& after) {
    std::vector<page_source> sources;
    std::vector<std::unique_ptr<page_levels>> levels;
    auto rest = static_cast<std::size_t>(wanted.page_megabytes * 1'000'000);
    // Steps of about one length on both sides: what is alike is then to look alike.
    const auto length = [](const summed_trace& trace) {
        const sequence_summary& only = trace.sequences->begin()->second;
        return static_cast<double>(only.last() - only.first);
    };
    const double longest = std::max(length(before), length(after));
    for (summed_trace* const trace : {&before, &after}) {
        const double share = longest > 0 ? length(*trace) / longest : 1;
        const double bins = std::max(2.0, share * static_cast<double>(wanted.page_bins()));
        trace->summary.coarsen(static_cast<std::size_t>(bins));
        sources.push_back(trace->as_source(wanted));
        rest -= std::min(rest, page_base_size(*trace->sequences, 0));
    }
    for (summed_trace* const trace : {&before, &after}) {
        levels.push_back(std::make_unique<page_levels>(
            *trace->sequences, trace->selected, page_origin(*trace->sequences), rest / 2, levels.size()));
        monitor again(*levels.back(), trace->input, wanted);
        again.read("Packing samples");
        levels.back()->finish();
        sources[levels.size() - 1].levels = levels.back().get();
    }
    const page_comparison compared{.after = sources[1], .result = result};
    write_page(out, sources[0], &compared);
}

int compare_traces(const settings& wanted) {
    std::vector<std::unique_ptr<summed_trace>> traces;
    bool is_whole = true;
    const auto read_all = [&](const std::vector<std::string>& paths) {
        std::vector<const sequence_summary*> result;
        for (const std::string& path : paths) {
            traces.push_back(std::make_unique<summed_trace>(wanted, path));
            summed_trace& trace = *traces.back();
            is_whole = is_whole && trace.problems.empty();
            tell(trace.problems, trace.input.name());
            result.push_back(&trace.main_sequence("compared"));
        }
        return result;
    };
    const auto before = read_all(wanted.before);
    const comparison result = compare(before, read_all(wanted.after));
    std::vector<std::string> failed;
    for (const gate& each : wanted.gates) {
        bool is_compared = false;
        for (const compared_counter& counter : result.counters) {
            is_compared = is_compared || each.is_for(counter);
            if (each.fails(counter)) {
                failed.push_back(each.text() + ": \"" + counter.name + "\" changed by " +
                                 change_text(counter));
            }
        }
        if (!is_compared) {
            fail(exit_unusable, "no counter of both sides is named as in \"" + each.text() + "\"");
        }
    }
    result_output output;
    std::ostream& out = output.open(wanted);
    const comparison_output what{
        .before = wanted.before, .after = wanted.after, .result = result, .failed = failed};
    if (wanted.form == output_form::json) {
        out << json_text(comparison_in_json(what), 1) << '\n';
    } else if (wanted.form == output_form::html) {
        write_comparison_page(out, wanted, what, *traces.front(), *traces[before.size()]);
    } else {
        write_comparison(out, what, terminal_settings(wanted));
    }
    output.finish();
    return !failed.empty() ? exit_gate : is_whole ? EXIT_SUCCESS : exit_partly;
}

[[noreturn]] void list_offered(const std::string& path) {
    const std::optional<std::string> bytes = read_file(path.c_str());
    if (!bytes) {
        fail(exit_unusable, "can't read " + path + ": " + std::strerror(errno));
    }
    const std::vector<counter_description> counters = read_offered_counters(*bytes);
    if (counters.empty()) {
        fail(exit_unusable, "no GPU counters are offered in " + path);
    }
    for (const counter_description& counter : counters) {
        std::printf("%u\t%s\n", counter.id, counter.name.c_str());
    }
    command_line::finish(exit_unusable);
}

void set_form(settings& wanted, output_form form) {
    if (wanted.form != output_form::summary && wanted.form != form) {
        fail_usage("there is one output: the summary, one form of --csv, --json, or --html");
    }
    wanted.form = form;
}

amount_form amounts_argument(const std::string& text) {
    const auto found = std::find(amount_form_names.begin(), amount_form_names.end(), text);
    if (found == amount_form_names.end()) {
        fail_usage("--amounts is sample, second or total, not \"" + text + "\"");
    }
    return static_cast<amount_form>(found - amount_form_names.begin());
}

double seconds_argument(const char* option, const std::string& text) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || *end != '\0' || !std::isfinite(value) || value < 0) {
        fail_usage(std::string(option) + " is a number of seconds, not \"" + text + "\"");
    }
    return value;
}

gate gate_argument(const std::string& text) {
    const std::optional<gate> limit = gate::parse(text);
    if (!limit) {
        fail_usage("a limit is NAME, > or <, and a number or percentage, not \"" + text + "\"");
    }
    return *limit;
}

// The command line, complete and free of contradictions.
settings read_command_line(int argument_count, char** arguments) {
    settings result;
    bool compares = false;
    command_line::options table(
        {"[OPTION...] TRACE", "[OPTION...] --compare BEFORE AFTER", "--offered STATE"},
        "Shows the GPU counters of a recorded trace: a line for each counter with its mean, minimum, "
        "percentiles and maximum and, on a wide terminal, a small chart; of more than 120 counters those "
        "that are selected by default. TRACE is a file, or - for standard input.",
        "Exit status: 0 success, 1 the trace is damaged and what is readable of it was shown, 2 nothing "
        "could be shown, 3 a limit of --fail-if is passed.");
    table.section("What to show");
    table.flag("-a,--all",
               "all counters of the trace, not just the default selection, and all of a comparison",
               result.all);
    table.value("-m,--match", "TEXT", "only counters whose name holds TEXT, in any case; may be repeated",
                [&result](const std::string& text) { result.match.push_back(text); });
    const auto seconds = [&table](const char* name, const char* text, std::optional<double>& target) {
        table.value(name, "SECONDS", text,
                    [name, &target](const std::string& given) { target = seconds_argument(name, given); });
    };
    seconds("--from", "only what comes after so many seconds from the first sample", result.from);
    seconds("--to", "only what comes before so many seconds", result.to);
    table.value(
        "--amounts", "FORM",
        "what adds up, such as bytes, per 'second' (the default), per 'sample' (that of --csv), or as the "
        "'total' of the time shown",
        [&result](const std::string& text) { result.amounts = amounts_argument(text); },
        {amount_form_names.begin(), amount_form_names.end()});
    table.section("How to show it");
    std::string csv;
    table.flag_with_value(
        "-c,--csv", "wide", "FORM",
        "comma-separated values: 'wide', a line for each sample (the default), or 'long', a "
        "line for each value",
        csv);
    table.flag("-j,--json", "all numbers of the summary, or of a comparison, as JSON",
               [&result] { set_form(result, output_form::json); });
    table.flag("--html",
               "a page with a chart for each counter, of a comparison with both traces, for a browser",
               [&result] { set_form(result, output_form::html); });
    std::string by_frame;
    table.flag_with_value("--by-frame", all_layers, "LAYER",
                          "a line for each frame of the trace's frame timeline, or of the layers whose names "
                          "hold LAYER, and what the longest have in common; in the forms summary, --csv and "
                          "--json",
                          by_frame);
    table.value("-o,--output", "FILE", "write to FILE, not to standard output", result.output);
    table.number("--bins", "NUMBER",
                 "time steps of a chart, at most (default 2048; of a page's overview 512)", 2, most_bins,
                 [&result](std::uint64_t value) { result.bins = static_cast<std::size_t>(value / 2 * 2); });
    table.number("--page-size", "MB",
                 "how large a page may become: what of the samples does not fit is left out (default 20)", 1,
                 1000, [&result](std::uint64_t value) { result.page_megabytes = value; });
    const std::vector<std::string> occasions{"auto", "always", "never"};
    table.value(
        "--charts", "WHEN", "charts in the summary: 'auto' (on a terminal, the default), 'always', 'never'",
        [&result, &occasions](const std::string& text) {
            if (std::find(occasions.begin(), occasions.end(), text) == occasions.end()) {
                fail_usage("--charts is auto, always or never, not \"" + text + "\"");
            }
            result.charts = text;
        },
        occasions);
    table.flag("-q,--quiet", "show no progress", result.quiet);
    table.section("Two traces");
    table.flag("--compare", "show what changed from one trace to another by more than chance", compares);
    table.value("--before", "TRACE", "a further trace of that side; may be repeated",
                [&result](const std::string& path) { result.before.push_back(path); });
    table.value("--after", "TRACE", "a further trace of that side; may be repeated",
                [&result](const std::string& path) { result.after.push_back(path); });
    table.value(
        "--fail-if", "LIMIT",
        "end with status 3 if a counter changed beyond a limit and by more than chance: a part of its "
        "name, > or <, and a change, in per cent with % behind it and else in the counter's unit, as "
        "'External read bytes > +5%'; may be repeated",
        [&result](const std::string& text) { result.gates.push_back(gate_argument(text)); });
    table.section("A tracing service");
    table.value("--offered", "STATE",
                "list the ids and names of the counters that it offers: STATE is a file with the output of "
                "'perfetto --query-raw'",
                [](const std::string& path) { list_offered(path); });
    const std::vector<std::string> traces = table.parse(argument_count, arguments, exit_unusable);

    if (!csv.empty()) {
        if (csv != "wide" && csv != "long") {
            fail_usage("the form of --csv is wide or long, not \"" + csv + "\"");
        }
        set_form(result, csv == "wide" ? output_form::csv_wide : output_form::csv_long);
    }
    if (!by_frame.empty()) {
        result.by_frame = by_frame == all_layers ? "" : by_frame;
        if (compares || result.form == output_form::html || result.form == output_form::csv_long) {
            fail_usage("--by-frame is of one trace, and has neither a page nor the long form of --csv");
        }
    }
    if (!compares && (!result.before.empty() || !result.after.empty() || !result.gates.empty())) {
        fail_usage("--before, --after and --fail-if belong to --compare");
    }
    const std::size_t expected = compares ? 2 : 1;
    if (traces.size() < expected) {
        fail_usage(compares ? "a comparison is of two traces" : "the trace is missing");
    }
    if (traces.size() > expected) {
        fail_usage(compares ? "more traces of a side are given with --before and --after"
                            : "one trace at a time");
    }
    if (result.from.value_or(0) > result.to.value_or(HUGE_VAL)) {
        fail_usage("--from lies behind --to");
    }
    if (result.form == output_form::html && result.output.empty() && isatty(STDOUT_FILENO) != 0) {
        fail_usage("a page is for a browser: say where it goes with --output FILE");
    }
    if (compares) {
        if (result.is_csv()) {
            fail_usage("a comparison is shown on the terminal, as --json or as --html");
        }
        result.before.insert(result.before.begin(), traces[0]);
        result.after.insert(result.after.begin(), traces[1]);
        return result;
    }
    result.trace = traces[0];
    return result;
}

int run(int argument_count, char** arguments) {
    std::ios::sync_with_stdio(false);
    const settings wanted = read_command_line(argument_count, arguments);
    if (!wanted.before.empty()) {
        return compare_traces(wanted);
    }
    return wanted.by_frame   ? report_by_frame(wanted)
           : wanted.is_csv() ? write_table(wanted)
                             : report_trace(wanted);
}

}  // namespace

int main(int argument_count, char** arguments) {
    try {
        return run(argument_count, arguments);
    } catch (const std::exception& error) {
        fail(exit_unusable, error.what());
    }
}
