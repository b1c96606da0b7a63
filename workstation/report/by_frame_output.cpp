#include <algorithm>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <ostream>
#include <utility>

#include "workstation/command_line/output.h"
#include "workstation/report/by_frame.h"
#include "workstation/report/json_values.h"
#include "workstation/report/text_layout.h"

namespace qel::vexa::report {

namespace {

using json = nlohmann::ordered_json;

double milliseconds(std::uint64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / 1e6;
}

std::string shown_unit(const counter_series& series, amount_form form) {
    return unit_in_words(series.counter,
                         series.kind == counter_kind::amount && form == amount_form::per_second);
}

// What the forms share.
class numbering {
public:
    explicit numbering(const by_frame_source& what) : what_(what), numbers_(numbers_of(what.frames)) {}
    const std::vector<std::size_t>& numbers() const { return numbers_; }
    const frame& at(std::size_t place) const { return what_.frames[place]; }
    std::size_t number(std::size_t place) const { return numbers_[place]; }
    // Seconds from the first sample; frames may have begun before it.
    double start(std::size_t place) const {
        return (static_cast<double>(at(place).start) - static_cast<double>(what_.summary.first)) / 1e9;
    }
    double duration(std::size_t place) const { return milliseconds(at(place).end - at(place).start); }
    // Nothing when nothing was expected of it.
    std::optional<double> expected(std::size_t place) const {
        const frame& one = at(place);
        return one.expected_end > one.start ? std::optional(milliseconds(one.expected_end - one.start))
                                            : std::nullopt;
    }

private:
    const by_frame_source& what_;
    const std::vector<std::size_t> numbers_;
};

class csv_form : public by_frame_writer {
public:
    csv_form(std::ostream& out, const by_frame_source& what) : out_(out), frames_(what) {
        std::map<std::string, std::size_t> uses;
        for (const counter_series* const column : what.columns) {
            ++uses[column->counter.name];
        }
        out_ << "layer,frame,token,start_s,start_ns,duration_ms,expected_ms,jank,dropped,samples";
        for (const counter_series* const column : what.columns) {
            const std::string& name = column->counter.name;
            out_ << ','
                 << command_line::csv_field(
                        uses[name] > 1 ? name + " (" + std::to_string(column->counter.id) + ")" : name);
        }
        out_ << '\n';
    }
    void row(std::size_t place, std::uint64_t samples,
             const std::vector<std::optional<double>>& values) override {
        const frame& one = frames_.at(place);
        const std::optional<double> expected = frames_.expected(place);
        out_ << command_line::csv_field(layer_name(one.layer)) << ',' << frames_.number(place) << ','
             << one.token << ',' << exact_number(frames_.start(place)) << ',' << one.start << ','
             << exact_number(frames_.duration(place)) << ',' << (expected ? exact_number(*expected) : "")
             << ',' << one.jank << ',' << (one.is_dropped ? 1 : 0) << ',' << samples;
        for (const std::optional<double>& value : values) {
            out_ << ',' << (value ? exact_number(*value) : "");
        }
        out_ << '\n';
    }
    void finish(const std::vector<layer_contrast>& /*layers*/) override {}

private:
    std::ostream& out_;
    const numbering frames_;
};

class json_form : public by_frame_writer {
public:
    json_form(std::ostream& out, const by_frame_source& what) : out_(out), frames_(what) {
        json head{{"version", 1},
                  {"file", what.file},
                  {"sequence", what.source.sequence},
                  {"gpu", what.source.gpu},
                  {"amounts", amount_form_names[static_cast<std::size_t>(what.amounts)]},
                  {"counters", json::array()}};
        for (const counter_series* const column : what.columns) {
            head["counters"].push_back({{"id", column->counter.id},
                                        {"name", column->counter.name},
                                        {"block", column->block},
                                        {"kind", kind_name(column->kind)},
                                        {"unit", column->counter.unit()},
                                        {"shownUnit", shown_unit(*column, what.amounts)}});
        }
        std::string text = json_text(head, -1);
        text.pop_back();  // the closing brace: more members follow
        out_ << text << ",\"frames\":[";
    }
    void row(std::size_t place, std::uint64_t samples,
             const std::vector<std::optional<double>>& values) override {
        const frame& one = frames_.at(place);
        const std::optional<double> expected = frames_.expected(place);
        json line{{"layer", layer_name(one.layer)},
                  {"frame", frames_.number(place)},
                  {"token", one.token},
                  {"startSeconds", frames_.start(place)},
                  {"startNs", one.start},
                  {"durationMs", frames_.duration(place)},
                  {"expectedMs", expected ? json(*expected) : json(nullptr)},
                  {"jank", one.jank},
                  {"jankText", jank_text(one)},
                  {"late", is_late(one)},
                  {"dropped", one.is_dropped},
                  {"samples", samples},
                  {"values", json::array()}};
        for (const std::optional<double>& value : values) {
            line["values"].push_back(value ? json(*value) : json(nullptr));
        }
        out_ << std::exchange(separator_, ",\n") << json_text(line, -1);
    }
    void finish(const std::vector<layer_contrast>& layers) override {
        out_ << "\n],\"layers\":" << json_text(contrasts_in_json(layers, frames_.numbers()), 1) << "}\n";
    }

private:
    std::ostream& out_;
    const numbering frames_;
    const char* separator_ = "\n";
};

constexpr std::size_t value_width = 8;
constexpr std::size_t name_width = 20;  // of a layer
constexpr std::size_t most_columns = 8;

std::string fixed(double value, int decimals) {
    char text[32];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

// A counter over many frames, in the unit that suits what it comes to as a whole.
struct shown_column {
    const counter_series* series;
    short_unit unit;
};

class table_form : public by_frame_writer {
public:
    table_form(std::ostream& out, const by_frame_source& what, const terminal_options& options)
        : out_(out),
          frames_(what),
          width_(options.width != 0 ? options.width : 1000),
          has_layers_(layers_of(what.frames).size() > 1) {
        constexpr std::size_t fixed_width = 7 + 10 + 9 + 5;
        const std::size_t taken = fixed_width + (has_layers_ ? name_width + 1 : 0);
        const std::size_t fit = width_ > taken ? (width_ - taken) / value_width : 0;
        for (std::size_t i = 0; i < std::min({what.columns.size(), fit, most_columns}); ++i) {
            const counter_series& series = *what.columns[i];
            const auto figures = figures_of(what.summary, series, what.amounts);
            const double typical = what.amounts == amount_form::total && figures ? figures->most
                                   : figures                                     ? figures->value
                                                                                 : 0;
            columns_.push_back(
                {&series, short_unit_of(shown_unit(series, what.amounts), series.kind, typical)});
        }
        write_wrapped(out_, frames_in_words(what.frames), width_, "  ");
        for (std::size_t i = 0; i < columns_.size(); ++i) {
            const shown_column& column = columns_[i];
            write_wrapped(out_,
                          std::string("  ") + letter(i) + "  " + column.series->counter.name +
                              (column.unit.text.empty() ? "" : ", " + column.unit.text),
                          width_, "     ");
        }
        std::string head =
            right_aligned("frame", 7) + right_aligned("start s", 10) + right_aligned("ms", 9) + " late";
        for (std::size_t i = 0; i < columns_.size(); ++i) {
            head += right_aligned(std::string(1, letter(i)), value_width);
        }
        out_ << '\n';
        write_line(out_, (has_layers_ ? padded("layer", name_width) + ' ' : "") + head);
    }
    void row(std::size_t place, std::uint64_t /*samples*/,
             const std::vector<std::optional<double>>& values) override {
        const frame& one = frames_.at(place);
        std::string line;
        if (has_layers_) {
            line = padded(wrapped(layer_name(one.layer), name_width).front(), name_width) + ' ';
        }
        line += right_aligned(std::to_string(frames_.number(place)), 7) +
                right_aligned(fixed(frames_.start(place), 4), 10) +
                right_aligned(fixed(frames_.duration(place), 2), 9) +
                (one.is_dropped ? " lost"
                 : is_late(one) ? " late"
                                : "     ");
        for (std::size_t i = 0; i < columns_.size(); ++i) {
            line += right_aligned(values[i] ? column_number(*values[i] / columns_[i].unit.scale) : "-",
                                  value_width);
        }
        write_line(out_, line);
    }
    void finish(const std::vector<layer_contrast>& layers) override {
        for (const layer_contrast& layer : layers) {
            write_longest(layer);
        }
    }

private:
    static char letter(std::size_t column) { return static_cast<char>('a' + column); }

    void write_longest(const layer_contrast& layer) {
        out_ << '\n';
        write_wrapped(out_, "Longest frames of " + layer_name(layer.layer), width_, "  ");
        for (const std::size_t place : layer.longest) {
            write_wrapped(out_,
                          right_aligned(std::to_string(frames_.number(place)), 7) +
                              right_aligned(fixed(frames_.start(place), 4), 10) +
                              right_aligned(fixed(frames_.duration(place), 2), 9) + "  " +
                              jank_text(frames_.at(place)),
                          width_, std::string(28, ' '));
        }
        if (layer.common.empty()) {
            return;
        }
        write_wrapped(out_, "What their counters come to, and those of all others", width_, "  ");
        for (const contrast& each : layer.common) {
            const short_unit unit =
                short_unit_of(shown_unit(*each.series, amount_form::per_second), each.series->kind,
                              std::max(std::fabs(each.longest), std::fabs(each.others)));
            write_wrapped(out_,
                          right_aligned(column_number(each.longest / unit.scale), 9) +
                              right_aligned(column_number(each.others / unit.scale), 9) + "  " +
                              each.series->counter.name + (unit.text.empty() ? "" : ", " + unit.text),
                          width_, std::string(20, ' '));
        }
    }

    std::ostream& out_;
    const numbering frames_;
    const std::size_t width_;
    const bool has_layers_;
    std::vector<shown_column> columns_;
};

}  // namespace

json contrasts_in_json(const std::vector<layer_contrast>& layers, const std::vector<std::size_t>& numbers) {
    json result = json::array();
    for (const layer_contrast& layer : layers) {
        json one{{"layer", layer_name(layer.layer)}, {"longest", json::array()}, {"common", json::array()}};
        for (const std::size_t place : layer.longest) {
            one["longest"].push_back(numbers[place]);
        }
        for (const contrast& each : layer.common) {
            one["common"].push_back({{"id", each.series->counter.id},
                                     {"name", each.series->counter.name},
                                     {"unit", shown_unit(*each.series, amount_form::per_second)},
                                     {"longest", each.longest},
                                     {"others", each.others}});
        }
        result.push_back(std::move(one));
    }
    return result;
}

std::string frames_in_words(const std::vector<frame>& frames) {
    constexpr std::size_t most_named = 4;
    const std::vector<frame_layer> layers = layers_of(frames);
    std::string result;
    for (std::size_t i = 0; i < std::min(layers.size(), most_named); ++i) {
        const frame_layer& layer = layers[i];
        result += (i == 0 ? "" : "; ") + layer.name + ": " + std::to_string(layer.frames) + " frames, " +
                  std::to_string(layer.late) + " late, the longest " + fixed(milliseconds(layer.longest), 2) +
                  " ms";
    }
    return layers.size() <= most_named
               ? result
               : result + "; and " + std::to_string(layers.size() - most_named) + " layers more";
}

std::unique_ptr<by_frame_writer> by_frame_csv(std::ostream& out, const by_frame_source& what) {
    return std::make_unique<csv_form>(out, what);
}

std::unique_ptr<by_frame_writer> by_frame_json(std::ostream& out, const by_frame_source& what) {
    return std::make_unique<json_form>(out, what);
}

std::unique_ptr<by_frame_writer> by_frame_table(std::ostream& out, const by_frame_source& what,
                                                const terminal_options& options) {
    return std::make_unique<table_form>(out, what, options);
}

}  // namespace qel::vexa::report
