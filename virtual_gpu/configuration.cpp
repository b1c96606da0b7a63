#include "virtual_gpu/configuration.h"

#include <unistd.h>

#include <array>
#include <bit>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <utility>
#include <vector>

namespace qel::vexa::virtual_gpu {

namespace {

constexpr std::size_t core_group_capacity = 16;
constexpr std::uint64_t hertz_per_megahertz = 1'000'000;

struct parse_state {
    configuration result;
    std::optional<std::uint64_t> cores;
    bool has_groups = false;
};

struct piece {
    std::string_view text;
    bool is_last;
};

// Takes the text up to the first separator off the front, and the separator with it.
piece take(std::string_view& text, char separator) {
    const std::size_t end = text.find(separator);
    const piece taken{.text = text.substr(0, end), .is_last = end == std::string_view::npos};
    text.remove_prefix(taken.is_last ? text.size() : end + 1);
    return taken;
}

template <typename Number>
bool read(std::string_view text, Number& result, std::uint64_t least = 0,
          std::uint64_t most = std::numeric_limits<Number>::max()) {
    const bool is_hexadecimal = text.starts_with("0x");
    if (is_hexadecimal) {
        text.remove_prefix(2);
    }
    std::uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, is_hexadecimal ? 16 : 10);
    if (error != std::errc() || stop != end || value < least || value > most) {
        return false;
    }
    result = static_cast<Number>(value);
    return true;
}

bool read_pair(std::string_view text, std::uint16_t& major, std::uint16_t& minor) {
    return read(take(text, '.').text, major) && read(text, minor);
}

bool read_groups(std::string_view text, std::vector<std::uint64_t>& masks) {
    masks.clear();
    for (;;) {
        const piece mask = take(text, ':');
        if (masks.size() == core_group_capacity || !read(mask.text, masks.emplace_back())) {
            return false;
        }
        if (mask.is_last) {
            return true;
        }
    }
}

struct item {
    std::string_view name;
    std::string_view takes;
    bool (*read)(std::string_view value, parse_state& state);
};

constexpr auto items = std::to_array<item>({
    {"id", "a number of 32 bits",
     [](std::string_view value, parse_state& state) { return read(value, state.result.gpu.product_id); }},
    {"revision", "two numbers of 16 bits with a point between them",
     [](std::string_view value, parse_state& state) {
         return read_pair(value, state.result.gpu.major_revision, state.result.gpu.minor_revision);
     }},
    {"status", "a number of 16 bits",
     [](std::string_view value, parse_state& state) { return read(value, state.result.gpu.version_status); }},
    {"cores", "a mask of 64 bits",
     [](std::string_view value, parse_state& state) { return read(value, state.cores.emplace()); }},
    {"groups", "1 to 16 masks of 64 bits with colons between them",
     [](std::string_view value, parse_state& state) {
         state.has_groups = true;
         return read_groups(value, state.result.gpu.core_group_masks);
     }},
    {"l2", "a number up to 255",
     [](std::string_view value, parse_state& state) { return read(value, state.result.gpu.l2_slices); }},
    {"bus", "a power of two up to 1024",
     [](std::string_view value, parse_state& state) {
         std::uint32_t& width = state.result.gpu.bus_width_bytes;
         return read(value, width, 1, 1024) && std::has_single_bit(width);
     }},
    {"clock", "a number from 1 to 10000",
     [](std::string_view value, parse_state& state) {
         std::uint64_t& clock = state.result.gpu.clock_hz;
         const bool is_valid = read(value, clock, 1, 10'000);
         clock *= hertz_per_megahertz;
         return is_valid;
     }},
    {"version", "two numbers of 16 bits with a point between them",
     [](std::string_view value, parse_state& state) {
         interface_version& version = state.result.gpu.kernel_version;
         return read_pair(value, version.major, version.minor);
     }},
    {"source", R"("workload" or "formula")",
     [](std::string_view value, parse_state& state) {
         state.result.source = value == "formula" ? source_kind::formula : source_kind::workload;
         return value == "formula" || value == "workload";
     }},
    {"period", "a number from 1 to 4294967295",
     [](std::string_view value, parse_state& state) {
         return read(value, state.result.period_ns, 1, std::numeric_limits<std::uint32_t>::max());
     }},
});

}  // namespace

std::optional<configuration> parse_configuration(std::string_view text, std::string& error) {
    parse_state state;
    configuration& result = state.result;
    const auto refuse = [&error](std::string_view item_text, std::string_view reason) {
        error = "VIRTUAL_GPU: bad item \"";
        error.append(item_text).append("\": ").append(reason);
        return std::nullopt;
    };
    if (text == "none") {
        result.present = false;
        return result;
    }
    std::array<bool, items.size()> seen{};
    for (bool more = !text.empty(); more;) {
        const piece next = take(text, ',');
        more = !next.is_last;
        std::string_view value = next.text;
        const std::string_view name = take(value, '=').text;
        std::size_t index = 0;
        while (index < items.size() && items[index].name != name) {
            ++index;
        }
        if (index == items.size()) {
            return refuse(next.text, "there is no such item");
        }
        if (std::exchange(seen[index], true)) {
            return refuse(next.text, "it is there twice");
        }
        if (!items[index].read(value, state)) {
            return refuse(next.text, std::string("it takes ").append(items[index].takes));
        }
    }
    if (state.cores && !state.has_groups) {
        result.gpu.core_group_masks = {*state.cores};
    } else if (state.cores && *state.cores != result.gpu.core_mask()) {
        return refuse("groups", "together they are not the cores");
    }
    return result;
}

configuration read_environment() {
    const char* text = std::getenv("VIRTUAL_GPU");
    std::string error;
    std::optional<configuration> result = parse_configuration(text == nullptr ? "" : text, error);
    if (!result) {
        std::fprintf(stderr, "%s\n", error.c_str());
        ::_exit(bad_environment_status);
    }
    return *std::move(result);
}

}  // namespace qel::vexa::virtual_gpu
