// Bringing a context up: the stages of one attempt and the search over instances. Diagnostics takes its
// settings once, so that every attempt has a process of its own.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <sstream>

#include "base/vexa_base_context.h"
#include "tests/support/apart.h"
#include "tests/support/own_time.h"
#include "tests/support/platform_log.h"
#include "tests/support/process.h"
#include "tests/support/resources.h"
#include "virtual_gpu/machine.h"

namespace {

using namespace qel::vexa::virtual_gpu;  // NOLINT(google-build-using-namespace)
using namespace test_support;            // NOLINT(google-build-using-namespace)

constexpr char no_module[] = "Kernel module may not have been loaded\n";

std::string stage_message(const std::string& stage) {
    return "Failed creating base context during " + stage + ".\n";
}

std::string refusal(unsigned instance, const char* detected) {
    return "ERROR: The DDK (built for 0x90020000 r0p0 status range [0..15]) is not compatible with this "
           "Vexa GPU device, /dev/vexa" +
           std::to_string(instance) + " detected as " + detected + "\n" +
           stage_message("DDK compatibility check");
}

// One attempt in a child, on the machine as it is, and what it came to: "up" or "down", the version and
// instance of a context that is up, the instances that were opened or waited for, in order, and the messages.
// Without a setting VEXA_INSTANCE is not set.
std::string attempt(const char* setting, std::uint32_t instance = BASE_ANY_INSTANCE) {
    return report_from_child([=] {
        ::unsetenv("VEXA_INSTANCE");
        if (setting != nullptr) {
            ::setenv("VEXA_INSTANCE", setting, 1);
        }
        const own_time time;
        const std::uint64_t begin = time.microseconds;
        const held_resources before = held_resources::now();
        base_context ctx{};
        std::ostringstream text;
        const bool up = base_context_init_for_instance(&ctx, 0xffffffff, instance) == 1;
        const open_counts open = machine::open_now();
        EXPECT_EQ(open.nodes, open.tracking_pages);
        if (up) {
            EXPECT_EQ(open.nodes, 1U);
            EXPECT_EQ(ctx.create_flags, 0xffffffff);
            text << "up " << ctx.interface_major << "." << ctx.interface_minor << " at " << ctx.uk.instance;
        } else {
            text << "down";
        }
        text << ";";
        for (const request_record& request : machine::requests()) {
            if (request.kind == request_kind::open) {
                text << " " << request.instance;
            }
            if (request.kind == request_kind::set_flags) {
                EXPECT_EQ(request.argument, (std::vector{std::byte{0x7a}, {}, {}, {}}))
                    << "the kernel's alone";
            }
        }
        text << "; " << (time.microseconds - begin) / 1'000'000 << " s; ";
        for (const log_line& line : take_log_lines()) {
            text << line.text;
        }
        if (open.nodes != 0) {
            text << (up ? "" : "held");
            base_context_term(&ctx);
            EXPECT_EQ(ctx.tracking_page, nullptr);
        }
        EXPECT_EQ(machine::open_now(), open_counts{});
        EXPECT_TRUE(nothing_left(before));
        return text.str();
    });
}

const gpu_description refused = {.product_id = 0xa007, .version_status = 5, .minor_revision = 1};
constexpr char refused_as[] = "0xa007 r0p1 status 5.";

// A machine with these nodes.
using node_map = std::map<unsigned, gpu_description>;
void set_up(const node_map& nodes) {
    machine::reset();
    for (const auto& [instance, gpu] : nodes) {
        machine::add_node(instance, gpu);
    }
}
node_map driver(std::uint16_t major, std::uint16_t minor) {
    return {{0, {.kernel_version = {major, minor}}}};
}

TEST(base_context, stages_and_the_search_over_instances) {
    const std::string missing = stage_message("opening of kernel driver") + no_module;
    const std::string flags = stage_message("initializing of kernel context flags");
    const std::string page = stage_message("memory mapping of tracking handle");
    const std::string properties = stage_message("allocation of GPU properties");
    const node_map one = {{0, {}}}, second = {{0, refused}, {1, {}}};
    struct {
        const char* what;
        node_map nodes;
        std::string result;
        request_kind failing = request_kind::unknown;
        unsigned nth = 1;
    } const cases[] = {
        {"a higher minor", driver(11, 40), "up 11.33 at 0; 0; 0 s; "},
        {"a lower minor", driver(11, 32), "up 11.32 at 0; 0; 0 s; "},
        {"the lowest minor", driver(11, 28), "up 11.28 at 0; 0; 0 s; "},
        {"too low a minor", driver(11, 27), "down; 0 1 0 1; 10 s; " + missing + missing},
        {"a lower major", driver(10, 33), "down; 0 1 0 1; 10 s; " + missing + missing},
        {"a higher major", driver(12, 0), "down; 0 1 0 1; 10 s; " + missing + missing},
        {"no first device", {{1, {}}}, "down; 0; 5 s; " + missing},
        {"the first of two", {{0, {}}, {1, {}}}, "up 11.33 at 0; 0; 0 s; "},
        {"the third", {{0, refused}, {1, driver(11, 27)[0]}, {2, {}}}, "up 11.33 at 2; 0 1 2; 0 s; "},
        {"two, refused",
         {{0, refused}, {1, {.product_id = 0xb002, .major_revision = 4}}},
         "down; 0 1 2 0 1 2; 10 s; " + refusal(0, refused_as) + refusal(1, "0xb002 r0p0 status 0.")},
        {"open", one, "down; 0; 0 s; " + missing, request_kind::open},
        {"flags", one, "down; 0; 0 s; " + flags, request_kind::set_flags},
        {"tracking page", one, "down; 0; 0 s; " + page, request_kind::map_tracking_page},
        {"properties' length", one, "down; 0; 0 s; " + properties, request_kind::get_properties},
        {"properties", one, "down; 0; 0 s; " + properties, request_kind::get_properties, 2},
        // It opens the second time, and is left so: the second round only tells of reasons.
        {"the second's open", second, "down; 0 1 0 1; 0 s; " + refusal(0, refused_as) + "held",
         request_kind::open, 2},
        {"the second's flags", second, "down; 0 1; 0 s; " + flags, request_kind::set_flags, 2},
    };
    for (const auto& [what, nodes, result, failing, nth] : cases) {
        SCOPED_TRACE(what);
        // What ends at instance 0 does so too where that one is asked for.
        const bool ends_at_first = result.find("; 0; ") != std::string::npos;
        for (const std::uint32_t instance : {BASE_ANY_INSTANCE, 0U}) {
            if (instance == 0 && !ends_at_first) {
                break;
            }
            set_up(nodes);
            if (failing != request_kind::unknown) {
                machine::fail(failing, EBUSY, nth);
            }
            EXPECT_EQ(attempt(nullptr, instance), result);
        }
    }
    // A refused version is told of for instance 0 alone.
    set_up({{0, driver(11, 27)[0]}, {7, driver(11, 27)[0]}});
    EXPECT_EQ(attempt(nullptr, 0), "down; 0; 0 s; " + missing);
    EXPECT_EQ(attempt(nullptr, 7), "down; 7; 0 s; ");
}

TEST(base_context, the_setting_for_an_instance) {
    const std::string invalid = "down;; 0 s; Invalid value for environment variable VEXA_INSTANCE\n";
    struct {
        const char* setting;
        std::string result;
    } const cases[] = {
        {"1", "up 11.33 at 1; 1; 0 s; "},
        {"2", "down; 2; 0 s; " + refusal(2, refused_as)},
        {"3", "down; 3; 5 s; "},
        {"", "up 11.33 at 0; 0; 0 s; "},
        {"-1", invalid},
        {"4294967295", "down;; 5 s; "},              // one instance all the same, and no search
        {"00000000011", "up 11.33 at 1; 1; 0 s; "},  // cut behind ten characters
    };
    set_up({{0, {}}, {1, {}}, {2, refused}});
    for (const auto& [setting, result] : cases) {
        SCOPED_TRACE(setting);
        EXPECT_EQ(attempt(setting), result);
        EXPECT_EQ(attempt(setting, 0), "up 11.33 at 0; 0; 0 s; ");
    }
}

}  // namespace
