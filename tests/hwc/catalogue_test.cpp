// The tables beside a second statement of them: catalogue.txt, whose expressions are worked out here with an
// arithmetic and a reading of samples of their own.

#include <gtest/gtest.h>

#include <bit>
#include <cctype>
#include <cmath>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <span>
#include <sstream>
#include <string>

#include "hwc/counter_expressions.h"
#include "hwc/hwc_names.h"
#include "hwc/measure_unit.h"
#include "hwc/profiler.h"
#include "hwc/reported_rows.h"
#include "tests/hwc/hand_made_gpu.h"

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)

struct stated_row {
    std::string selected, unit, expression, name;
};

// The lines that hold in a table, by id.
std::map<std::uint32_t, stated_row> stated_rows(unsigned table) {
    std::map<std::uint32_t, stated_row> result;
    std::ifstream file(CATALOGUE);
    std::uint32_t next_derived = 65536;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with('#')) {
            continue;
        }
        std::istringstream fields(line);
        const auto next = [&fields] {
            std::string field;
            std::getline(fields >> std::ws, field, ';');
            return field;
        };
        const std::string tables = next(), id = next();
        const auto number = static_cast<char>('0' + table);
        bool holds = false;
        for (std::size_t i = 0; i < tables.size(); ++i) {
            holds = holds || tables[i] == number ||
                    (tables[i] == '-' && tables[i - 1] < number && number < tables[i + 1]);
        }
        if (holds) {
            stated_row row{next(), next(), next(), next()};
            EXPECT_TRUE(result.emplace(id == "+" ? next_derived++ : std::stoul(id), std::move(row)).second);
        }
    }
    return result;
}

double saturated(double x) {
    const double size = std::fabs(x);
    return std::isnan(x) || x == 0                     ? 0.0
           : std::isinf(x)                             ? std::numeric_limits<double>::max()
           : size < std::numeric_limits<double>::min() ? std::numeric_limits<double>::min()
                                                       : x;
}

// Works out a written expression by the usual rules, as it reads it.
class calculator {
public:
    using lookup = std::function<double(const std::string&)>;
    calculator(std::string text, lookup value_of) : text_(std::move(text)), value_of_(std::move(value_of)) {
        std::erase(text_, ' ');
    }

    // As far as steps bind more tightly than this.
    double value(int outer_binding = 0) {
        double left = operand();
        for (char op = peek(); binding(op) > outer_binding; op = peek()) {
            ++at_;
            const double right = value(binding(op));
            left = op == '+'    ? saturated(left + right)
                   : op == '-'  ? saturated(left - right)
                   : op == '*'  ? saturated(left * right)
                   : right == 0 ? 0.0
                                : saturated(left / right);
        }
        return left;
    }

private:
    static int binding(char op) { return op == '*' || op == '/' ? 2 : op == '+' || op == '-' ? 1 : 0; }
    char peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }
    double operand() {
        std::string word;
        while (std::isalnum(peek()) != 0 || peek() == '_' || peek() == '.') {
            word += text_[at_++];
        }
        if (!word.empty() && word != "max") {
            return std::isdigit(word[0]) != 0 ? std::stod(word) : value_of_(word);
        }
        double result = 0;
        bool first = true;
        do {  // behind a bracket, and for "max" behind a comma too
            ++at_;
            const double next = value();
            result = first || next > result ? next : result;
            first = false;
        } while (peek() == ',');
        ++at_;
        return result;
    }

    std::string text_;
    std::size_t at_ = 0;
    lookup value_of_;
};

// A GPU and a sample of it.
struct setting {
    std::uint32_t core_mask, l2_slices, bus_width;
    std::uint64_t cycles = 0;
    std::vector<std::uint32_t> words;

    double value_of_word(std::uint32_t id) const {
        const auto at = [&](std::size_t block) { return static_cast<double>(words[block * 64 + id % 64]); };
        double sum = 0;
        switch (id / 64) {
            case 0:
            case 1:
                return words[id];
            case 2:
                for (std::size_t slice = 0; slice < l2_slices; ++slice) {
                    sum += at(2 + slice);
                }
                return sum;
            default:
                for (std::size_t core = 0; core < 32; ++core) {
                    sum += (core_mask >> core & 1) != 0 ? at(2 + l2_slices + core) : 0;
                }
                return core_mask == 0 ? 0 : sum / std::popcount(core_mask);
        }
    }
};

setting make_setting(unsigned kind, std::mt19937& random) {
    constexpr std::uint32_t masks[] = {0b101, 1, 0x3ff, 0x80000001, 0xffffffff, 0};
    setting result{.core_mask = masks[random() % 6],
                   .l2_slices = static_cast<std::uint32_t>(random() % 9),
                   .bus_width = 8U << random() % 3,
                   .words = {}};
    // Up to the end of the last core's block, so that a sanitizer sees any word beyond it.
    result.words.resize(64 *
                        (2 + result.l2_slices + static_cast<std::size_t>(std::bit_width(result.core_mask))));
    const auto hot = static_cast<std::ptrdiff_t>(random() % 64);
    for (std::uint32_t& word : result.words) {
        const auto any = static_cast<std::uint32_t>(random());
        word = kind == 0   ? 0
               : kind == 1 ? 0xffffffff
               : kind == 2 ? any % 4  // equal ones, so that differences and divisors vanish
               : kind == 3 ? 1000 + any % 1000
               : kind == 5 && (&word - result.words.data()) % 64 != hot ? 0  // one word in each block alone
                                                                        : any >> random() % 32;
    }
    // Around the active cycles, which are at one of two places.
    result.cycles = random() % 2 == 0 ? random() : result.words[4 + random() % 2 * 2] + random() % 3;
    return result;
}

TEST(Catalogue, IsStatedTwice) {
    for (unsigned table = 1; table <= hwc::table_count; ++table) {
        const hwc::counter_table& rows = hwc::counter_tables[table - 1];
        const auto expressions = hwc::counter_expressions(table);
        const auto stated = stated_rows(table);
        EXPECT_EQ(rows.size(), stated.size());
        EXPECT_EQ(expressions.size(), stated.size());
        for (const auto& [id, expected] : stated) {
            SCOPED_TRACE(testing::Message() << "table " << table << ", id " << id);
            const hwc::vexa_counter_descriptor* const row = rows.find(id);
            ASSERT_NE(row, nullptr);
            EXPECT_EQ(row->name, expected.name);
            EXPECT_EQ(row->select_by_default, expected.selected == "*");
            const std::string above = hwc::unit_word(row->numerator_units);
            const std::string below = hwc::unit_word(row->denominator_units);
            EXPECT_EQ(above.empty() && below.empty() ? "-"
                      : below.empty()                ? above
                      : above.empty()                ? "per " + below
                                                     : above + "/" + below,
                      expected.unit);
            EXPECT_EQ(expressions.at(id), expected.expression);
            EXPECT_EQ(row->evaluator == nullptr, id < 65536);
        }
    }
}

TEST(Catalogue, ValuesAreThoseOfTheSecondStatement) {
    std::mt19937 random(5);
    for (unsigned table = 1; table <= hwc::table_count; ++table) {
        const hwc::counter_table& all = hwc::counter_tables[table - 1];
        const auto stated = stated_rows(table);
        std::map<std::string, std::uint32_t> ids;
        for (const auto& [id, row] : stated) {
            if (id < 65536) {
                ids.emplace(row.expression, id);
            }
        }
        for (unsigned round = 0; round < 60; ++round) {
            setting gpu = make_setting(round % 8, random);
            // In every other round a row is missing: it reads as 0 wherever it stands.
            const std::uint32_t missing =
                round % 2 == 0 ? 0
                : round == 1
                    ? 65535
                    : std::next(ids.begin(), static_cast<std::ptrdiff_t>(random() % ids.size()))->second;
            hwc::counter_table gapped;
            for (const hwc::vexa_counter_descriptor& row : all) {
                if (row.id != missing) {
                    gapped.insert(row);
                }
            }
            hwc::profiler profiler(hand_made_gpu(gapped, gpu.core_mask, gpu.l2_slices, gpu.bus_width), 5);
            profiler.gpu_cycles = gpu.cycles;
            EXPECT_EQ(profiler.words_read(), gpu.words.size());
            const std::vector<std::reference_wrapper<const hwc::vexa_counter_descriptor>> rows(gapped.begin(),
                                                                                               gapped.end());
            std::vector<double> reported(rows.size());
            // Raw counters first and by themselves, when no other row asks for their blocks.
            const auto raw = static_cast<std::size_t>(std::count_if(
                rows.begin(), rows.end(), [](const auto& row) { return row.get().evaluator == nullptr; }));
            for (const auto& [first, end] : {std::pair(std::size_t{0}, raw), {raw, rows.size()}}) {
                hwc::reported_rows(profiler, std::span(rows).subspan(first, end - first))
                    .evaluate(gpu.words.data(),
                              [&, at = &reported[first]](std::size_t i, double value) { at[i] = value; });
            }
            auto next_reported = reported.begin();
            // The same comes out whether this sample is in hand, another one or none.
            const std::vector<std::uint32_t> other(gpu.words.size(), 7);
            std::optional<hwc::sample_in_hand> in_hand;
            if (round % 3 != 0) {
                in_hand.emplace(profiler, round % 3 == 1 ? gpu.words.data() : other.data());
            }
            for (const hwc::vexa_counter_descriptor& row : gapped) {
                std::vector<std::uint32_t> read;
                const auto value_of = [&](const std::string& word) {
                    const auto id = ids.find(word);
                    if (id == ids.end()) {
                        return word == "BUS_WIDTH"      ? static_cast<double>(gpu.bus_width)
                               : word == "L2_SLICES"    ? static_cast<double>(gpu.l2_slices)
                               : word == "SHADER_CORES" ? std::popcount(gpu.core_mask)
                                                        : std::nan("");
                    }
                    if (std::find(read.begin(), read.end(), id->second) == read.end()) {
                        read.push_back(id->second);
                    }
                    return id->second == missing ? 0.0
                           : id->second == 65535 ? static_cast<double>(gpu.cycles)
                                                 : gpu.value_of_word(id->second);
                };
                const double expected = calculator(stated.at(row.id).expression, value_of).value();
                const double value = profiler.get_value_for_counter(gpu.words.data(), row).value();
                ASSERT_EQ(std::bit_cast<std::uint64_t>(value), std::bit_cast<std::uint64_t>(expected))
                    << row.name << " in table " << table << ", round " << round << ": " << value
                    << " and not " << expected;
                const bool percent = row.numerator_units == hwc::unit_percent;
                EXPECT_EQ(*next_reported++, value < 0 ? 0 : percent && value > 100 ? 100 : value) << row.name;
                EXPECT_EQ(row.dependencies, row.evaluator != nullptr ? read : decltype(read)())
                    << row.name << " in table " << table;
                if (row.evaluator != nullptr && read.empty()) {
                    EXPECT_EQ(row.evaluator(profiler, nullptr).value(), value);
                }
            }
            // Once let go, a sample's words may change.
            in_hand.reset();
            gpu.words[100] += 1;
            EXPECT_EQ(profiler.get_value_for_counter(gpu.words.data(), *all.find(100)).value(),
                      gpu.words[100]);
        }
    }
}

}  // namespace
