#include "virtual_gpu/configuration.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <utility>
#include <vector>

namespace qel::vexa::virtual_gpu {

namespace {

constexpr std::size_t core_group_capacity = 16;
constexpr std::uint64_t hertz_per_megahertz = 1'000'000;

// What the items of one GPU are read into.
struct parse_state {
    configuration& result;
    std::uint64_t& period_ns;
    initial_node node;
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

constexpr const char* kind_names[] = {"open",
                                      "stat",
                                      "fstat",
                                      "version_check",
                                      "version_check_second",
                                      "set_flags",
                                      "get_properties",
                                      "reader_setup",
                                      "map_tracking_page",
                                      "get_hardware_version",
                                      "get_sample_size",
                                      "dump",
                                      "clear",
                                      "get_buffer",
                                      "put_buffer",
                                      "set_interval",
                                      "get_api_version",
                                      "get_api_version_with_features",
                                      "map_ring",
                                      "poll",
                                      "unknown"};
static_assert(std::size(kind_names) == request_kind_count);

bool read_kind(std::string_view text, request_kind& kind) {
    const auto* found = std::find(std::begin(kind_names), std::end(kind_names), text);
    kind = static_cast<request_kind>(found - std::begin(kind_names));
    return found != std::end(kind_names);
}

// In the order of their numbers, from 1 on. Not every C library can tell them.
constexpr std::string_view error_names =
    "EPERM ENOENT ESRCH EINTR EIO ENXIO E2BIG ENOEXEC EBADF ECHILD EAGAIN ENOMEM EACCES EFAULT "
    "ENOTBLK EBUSY EEXIST EXDEV ENODEV ENOTDIR EISDIR EINVAL ENFILE EMFILE ENOTTY ETXTBSY EFBIG "
    "ENOSPC ESPIPE EROFS EMLINK EPIPE EDOM ERANGE EDEADLK ENAMETOOLONG ENOLCK ENOSYS ENOTEMPTY "
    "ELOOP - ENOMSG EIDRM ECHRNG EL2NSYNC EL3HLT EL3RST ELNRNG EUNATCH ENOCSI EL2HLT EBADE EBADR "
    "EXFULL ENOANO EBADRQC EBADSLT - EBFONT ENOSTR ENODATA ETIME ENOSR ENONET ENOPKG EREMOTE "
    "ENOLINK EADV ESRMNT ECOMM EPROTO EMULTIHOP EDOTDOT EBADMSG EOVERFLOW ENOTUNIQ EBADFD EREMCHG "
    "ELIBACC ELIBBAD ELIBSCN ELIBMAX ELIBEXEC EILSEQ ERESTART ESTRPIPE EUSERS ENOTSOCK "
    "EDESTADDRREQ EMSGSIZE EPROTOTYPE ENOPROTOOPT EPROTONOSUPPORT ESOCKTNOSUPPORT EOPNOTSUPP "
    "EPFNOSUPPORT EAFNOSUPPORT EADDRINUSE EADDRNOTAVAIL ENETDOWN ENETUNREACH ENETRESET "
    "ECONNABORTED ECONNRESET ENOBUFS EISCONN ENOTCONN ESHUTDOWN ETOOMANYREFS ETIMEDOUT "
    "ECONNREFUSED EHOSTDOWN EHOSTUNREACH EALREADY EINPROGRESS ESTALE EUCLEAN ENOTNAM ENAVAIL "
    "EISNAM EREMOTEIO EDQUOT ENOMEDIUM EMEDIUMTYPE ECANCELED ENOKEY EKEYEXPIRED EKEYREVOKED "
    "EKEYREJECTED EOWNERDEAD ENOTRECOVERABLE ERFKILL EHWPOISON";

bool read_error(std::string_view text, int& error) {
    unsigned number = 1;
    for (std::string_view rest = error_names; !rest.empty(); ++number) {
        const piece name = take(rest, ' ');
        if (name.text == text) {
            error = static_cast<int>(number);
            return true;
        }
    }
    return read(text, error, 1, number - 1);
}

bool read_failures(std::string_view text, std::vector<initial_failure>& failures) {
    for (;;) {
        const piece one = take(text, ':');
        std::string_view error = one.text;
        std::string_view which = take(error, '=').text;
        const piece kind = take(which, '@');
        initial_failure& next = failures.emplace_back();
        if (!read_kind(kind.text, next.kind) || !read_error(error, next.error) ||
            !(kind.is_last || read(which, next.nth, 1))) {
            return false;
        }
        if (one.is_last) {
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
     [](std::string_view value, parse_state& state) { return read(value, state.node.gpu.product_id); }},
    {"revision", "two numbers of 16 bits with a point between them",
     [](std::string_view value, parse_state& state) {
         return read_pair(value, state.node.gpu.major_revision, state.node.gpu.minor_revision);
     }},
    {"status", "a number of 16 bits",
     [](std::string_view value, parse_state& state) { return read(value, state.node.gpu.version_status); }},
    {"cores", "a mask of 64 bits",
     [](std::string_view value, parse_state& state) { return read(value, state.cores.emplace()); }},
    {"groups", "1 to 16 masks of 64 bits with colons between them",
     [](std::string_view value, parse_state& state) {
         state.has_groups = true;
         return read_groups(value, state.node.gpu.core_group_masks);
     }},
    {"l2", "a number up to 255",
     [](std::string_view value, parse_state& state) { return read(value, state.node.gpu.l2_slices); }},
    {"bus", "a power of two up to 1024",
     [](std::string_view value, parse_state& state) {
         std::uint32_t& width = state.node.gpu.bus_width_bytes;
         return read(value, width, 1, 1024) && std::has_single_bit(width);
     }},
    {"clock", "a number from 1 to 10000",
     [](std::string_view value, parse_state& state) {
         std::uint64_t& clock = state.node.gpu.clock_hz;
         const bool is_valid = read(value, clock, 1, 10'000);
         clock *= hertz_per_megahertz;
         return is_valid;
     }},
    {"version", "two numbers of 16 bits with a point between them",
     [](std::string_view value, parse_state& state) {
         interface_version& version = state.node.gpu.kernel_version;
         return read_pair(value, version.major, version.minor);
     }},
    {"features", "a number up to 3",
     [](std::string_view value, parse_state& state) {
         return read(value, state.node.gpu.reader_features, 0, 3);
     }},
    {"legacy", "0 or 1",
     [](std::string_view value, parse_state& state) { return read(value, state.node.gpu.is_legacy, 0, 1); }},
    {"loses", "0 or 1",
     [](std::string_view value, parse_state& state) {
         return read(value, state.node.gpu.loses_samples, 0, 1);
     }},
    {"hwver", "a number of 32 bits",
     [](std::string_view value, parse_state& state) {
         return read(value, state.node.gpu.counter_hardware_version);
     }},
    {"late", "a number up to 60000",
     [](std::string_view value, parse_state& state) {
         std::uint16_t milliseconds = 0;
         const bool is_valid = read(value, milliseconds, 0, 60'000);
         state.node.delay = std::chrono::milliseconds(milliseconds);
         return is_valid;
     }},
    {"failures", R"(requests such as "get_buffer@5=EIO" with colons between them)",
     [](std::string_view value, parse_state& state) {
         return read_failures(value, state.result.machine.failures);
     }},
    {"source", R"("workload" or "formula")",
     [](std::string_view value, parse_state& state) {
         state.node.gpu.source = value == "formula" ? source_kind::formula : source_kind::workload;
         return value == "formula" || value == "workload";
     }},
    {"period", "a number from 1 to 4294967295",
     [](std::string_view value, parse_state& state) {
         return read(value, state.period_ns, 1, std::numeric_limits<std::uint32_t>::max());
     }},
});

std::nullopt_t refuse(std::string_view item_text, std::string_view reason, std::string& error) {
    error = "VIRTUAL_GPU: bad item \"";
    error.append(item_text).append("\": ").append(reason);
    return std::nullopt;
}

// Reads one GPU into the node and what it has of the machine.
std::optional<initial_node> parse_gpu(std::string_view text, configuration& result, std::uint64_t& period_ns,
                                      std::string& error) {
    parse_state state{.result = result, .period_ns = period_ns, .node = {}, .cores = {}};
    gpu_description& gpu = state.node.gpu;
    gpu.source = source_kind::workload;
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
            return refuse(next.text, "there is no such item", error);
        }
        if (std::exchange(seen[index], true)) {
            return refuse(next.text, "it is there twice", error);
        }
        if (!items[index].read(value, state)) {
            return refuse(next.text, std::string("it takes ").append(items[index].takes), error);
        }
    }
    if (state.cores && !state.has_groups) {
        gpu.core_group_masks = {*state.cores};
    } else if (state.cores && *state.cores != gpu.core_mask()) {
        return refuse("groups", "together they are not the cores", error);
    }
    return std::move(state.node);
}

}  // namespace

std::optional<configuration> parse_configuration(std::string_view text, std::string& error) {
    configuration result;
    if (text == "none") {
        return result;
    }
    for (bool more = true; more;) {
        const piece next = take(text, ';');
        more = !next.is_last;
        std::uint64_t period_ns = result.period_ns;
        std::optional<initial_node> node = parse_gpu(next.text, result, period_ns, error);
        if (!node) {
            return std::nullopt;
        }
        if (result.machine.nodes.empty()) {
            result.period_ns = period_ns;
        }
        result.machine.nodes.push_back(*std::move(node));
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
