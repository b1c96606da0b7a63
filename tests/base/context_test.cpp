// Bringing a context up: the stages of one attempt and the search over instances. Diagnostics takes its
// settings once, so that every attempt has a process of its own.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <map>

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

constexpr char failed_at[] = "Failed creating base context during ";
constexpr char no_module[] = "Kernel module may not have been loaded\n";

std::string stage_message(const std::string& stage) {
    return failed_at + stage + ".\n";
}

std::string refusal(unsigned instance, const char* detected) {
    return "ERROR: The DDK (built for 0x90020000 r0p0 status range [0..15]) is not compatible with this Vexa "
           "GPU "
           "device, /dev/vexa" +
           std::to_string(instance) + " detected as " + detected + "\n" +
           stage_message("DDK compatibility check");
}

// What an attempt came to: "up" or "down", the version and instance of a context that is up, the instances
// that were opened or waited for, in order, and the messages.
std::string report(const base_context& ctx, std::uint32_t result, std::uint64_t slept) {
    std::string text = result == 1 ? "up " + std::to_string(ctx.interface_major) + "." +
                                         std::to_string(ctx.interface_minor) + " at " +
                                         std::to_string(ctx.uk.instance)
                                   : "down";
    text += ";";
    for (const request_record& request : machine::requests()) {
        if (request.kind == request_kind::open) {
            text += " " + std::to_string(request.instance);
        }
    }
    text += "; " + std::to_string(slept / 1'000'000) + " s; ";
    for (const log_line& line : take_log_lines()) {
        text += line.text;
    }
    return text;
}

// One attempt in a child, on the machine as it is. Without a setting VEXA_INSTANCE is not set.
std::string attempt(const char* setting, std::uint32_t instance = BASE_ANY_INSTANCE,
                    std::uint32_t flags = 2) {
    return report_from_child([=] {
        if (setting != nullptr) {
            ::setenv("VEXA_INSTANCE", setting, 1);
        } else {
            ::unsetenv("VEXA_INSTANCE");
        }
        const own_time time;
        const std::uint64_t begin = time.microseconds;
        const held_resources before = held_resources::now();
        base_context ctx{};
        const std::uint32_t result = base_context_init_for_instance(&ctx, flags, instance);
        std::string text = report(ctx, result, time.microseconds - begin);
        const open_counts open = machine::open_now();
        EXPECT_EQ(open.nodes, open.tracking_pages);
        if (result == 1) {
            EXPECT_EQ(open.nodes, 1U);
            EXPECT_EQ(ctx.create_flags, flags);
            base_context_term(&ctx);
            EXPECT_EQ(machine::open_now(), open_counts{});
            EXPECT_EQ(ctx.tracking_page, nullptr);
        } else if (open.nodes != 0) {
            text += "held";
            base_context_term(&ctx);
        }
        EXPECT_TRUE(held_resources::now().nothing_beyond(before))
            << testing::PrintToString(held_resources::now());
        return text;
    });
}

const gpu_description refused = {.product_id = 0xa007, .version_status = 5, .minor_revision = 1};
constexpr char refused_as[] = "0xa007 r0p1 status 5.";

// A machine with these nodes.
void set_up(const std::map<unsigned, gpu_description>& nodes) {
    machine::reset();
    for (const auto& [instance, gpu] : nodes) {
        machine::add_node(instance, gpu);
    }
}

TEST(base_context, versions_that_are_accepted) {
    struct {
        interface_version driver;
        std::string result;
    } const cases[] = {
        {{11, 33}, "up 11.33 at 0; 0; 0 s; "},
        {{11, 40}, "up 11.33 at 0; 0; 0 s; "},
        {{11, 32}, "up 11.32 at 0; 0; 0 s; "},
        {{11, 28}, "up 11.28 at 0; 0; 0 s; "},
    };
    for (const auto& [driver, result] : cases) {
        set_up({{0, {.kernel_version = driver}}});
        EXPECT_EQ(attempt(nullptr), result);
    }
    for (const interface_version driver : {interface_version{11, 27}, {11, 0}, {10, 33}, {12, 0}}) {
        SCOPED_TRACE(std::to_string(driver.major) + "." + std::to_string(driver.minor));
        set_up({{0, {.kernel_version = driver}}});
        const std::string first = stage_message("opening of kernel driver") + no_module;
        EXPECT_EQ(attempt(nullptr), "down; 0 1 0 1; 10 s; " + first + first);
        EXPECT_EQ(attempt(nullptr, 0), "down; 0; 0 s; " + first);
        set_up({{7, {.kernel_version = driver}}});
        EXPECT_EQ(attempt(nullptr, 7), "down; 7; 0 s; ");
    }
}

TEST(base_context, a_failing_stage_undoes_those_before_it) {
    struct {
        request_kind failing;
        unsigned nth;
        std::string stage;
        std::string second = {};
    } const cases[] = {
        {request_kind::open, 1, "opening of kernel driver", no_module},
        {request_kind::fstat, 1, "opening of kernel driver", no_module},
        {request_kind::version_check, 1, "opening of kernel driver", no_module},
        {request_kind::set_flags, 1, "initializing of kernel context flags"},
        {request_kind::map_tracking_page, 1, "memory mapping of tracking handle"},
        {request_kind::get_properties, 1, "allocation of GPU properties"},
        {request_kind::get_properties, 2, "allocation of GPU properties"},
    };
    for (const auto& [failing, nth, stage, second] : cases) {
        SCOPED_TRACE(stage);
        for (const std::uint32_t instance : {BASE_ANY_INSTANCE, 0U}) {
            set_up({{0, {}}});
            machine::fail(failing, EBUSY, nth);
            EXPECT_EQ(attempt(nullptr, instance), "down; 0; 0 s; " + stage_message(stage) + second);
        }
    }
}

TEST(base_context, failures_behind_a_refused_gpu) {
    struct {
        request_kind failing;
        unsigned nth;  // the one of instance 1
        std::string result;
    } const cases[] = {
        // It opens the second time, and is left so: the second round only tells of reasons.
        {request_kind::open, 2, "down; 0 1 0 1; 0 s; " + refusal(0, refused_as) + "held"},
        {request_kind::set_flags, 2,
         "down; 0 1; 0 s; " + stage_message("initializing of kernel context flags")},
        {request_kind::map_tracking_page, 2,
         "down; 0 1; 0 s; " + stage_message("memory mapping of tracking handle")},
        {request_kind::get_properties, 3, "down; 0 1; 0 s; " + stage_message("allocation of GPU properties")},
    };
    for (const auto& [failing, nth, result] : cases) {
        SCOPED_TRACE(result);
        set_up({{0, refused}, {1, {}}});
        machine::fail(failing, EIO, nth);
        EXPECT_EQ(attempt(nullptr), result);
    }
}

TEST(base_context, the_search_over_instances) {
    const std::string missing = stage_message("opening of kernel driver") + no_module;
    struct {
        const char* what;
        std::map<unsigned, gpu_description> nodes;
        std::string result;
    } const cases[] = {
        {"no device", {}, "down; 0; 5 s; " + missing},
        {"no first device", {{1, {}}}, "down; 0; 5 s; " + missing},
        {"the first of two", {{0, {}}, {1, {}}}, "up 11.33 at 0; 0; 0 s; "},
        {"the third",
         {{0, refused}, {1, {.kernel_version = {11, 27}}}, {2, {}}},
         "up 11.33 at 2; 0 1 2; 0 s; "},
        {"one, refused", {{0, refused}}, "down; 0 1 0 1; 10 s; " + refusal(0, refused_as)},
        {"a hole behind a refused one",
         {{0, refused}, {2, {}}},
         "down; 0 1 0 1; 10 s; " + refusal(0, refused_as)},
        {"two, refused",
         {{0, refused}, {1, {.product_id = 0xb002, .major_revision = 4}}},
         "down; 0 1 2 0 1 2; 10 s; " + refusal(0, refused_as) + refusal(1, "0xb002 r0p0 status 0.")},
    };
    for (const auto& [what, nodes, result] : cases) {
        SCOPED_TRACE(what);
        set_up(nodes);
        EXPECT_EQ(attempt(nullptr), result);
    }
}

TEST(base_context, the_setting_for_an_instance) {
    const std::string invalid = "down;; 0 s; Invalid value for environment variable VEXA_INSTANCE\n";
    struct {
        const char* setting;
        std::string result;
    } const cases[] = {
        {"1", "up 11.33 at 1; 1; 0 s; "},
        {"01 or so", "up 11.33 at 1; 1; 0 s; "},
        {" \t+1", "up 11.33 at 1; 1; 0 s; "},
        {"2", "down; 2; 0 s; " + refusal(2, refused_as)},
        {"3", "down; 3; 5 s; "},
        {"", "up 11.33 at 0; 0; 0 s; "},
        {"abc", "up 11.33 at 0; 0; 0 s; "},
        {"inf", "up 11.33 at 0; 0; 0 s; "},
        {"nan", "up 11.33 at 0; 0; 0 s; "},
        {"0x1", "up 11.33 at 0; 0; 0 s; "},
        {"-1", invalid},
        {"4294967296", invalid},
        {"00000000011", "up 11.33 at 1; 1; 0 s; "},  // cut behind ten characters
    };
    set_up({{0, {}}, {1, {}}, {2, refused}});
    for (const auto& [setting, result] : cases) {
        SCOPED_TRACE(setting);
        EXPECT_EQ(attempt(setting), result);
        EXPECT_EQ(attempt(setting, 0), "up 11.33 at 0; 0; 0 s; ");
    }
}

TEST(base_context, requests_of_a_whole_attempt) {
    set_up({{0, {}}});
    const std::string report = report_from_child([] {
        base_context ctx{};
        std::string text = std::to_string(base_context_init_for_instance(&ctx, 0xffffffff, 0));
        for (const request_record& request : machine::requests()) {
            char number[16];
            std::snprintf(number, sizeof number, " %x", request.number);
            text += number;
            if (request.kind == request_kind::set_flags) {
                text += "(" + std::to_string(std::to_integer<unsigned>(request.argument.at(0))) + ")";
            }
        }
        EXPECT_EQ(ctx.create_flags, 0xffffffff);
        EXPECT_EQ(base_get_gpu_props(&ctx)->product_id, 0x9002U);
        base_context_term(&ctx);
        return text;
    });
    EXPECT_EQ(report, "1 0 0 0 c0048000 40048001(122) 0 40108003 40108003");
}

}  // namespace
