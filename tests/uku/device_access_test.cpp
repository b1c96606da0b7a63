// Opening and closing device nodes, alone and beside forks, and which GPUs are accepted.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/support/apart.h"
#include "tests/support/failing_calls.h"
#include "tests/support/own_time.h"
#include "tests/support/platform_log.h"
#include "tests/support/process.h"
#include "tests/support/resources.h"
#include "uku/vexa_uku.h"
#include "virtual_gpu/machine.h"

namespace {

using namespace qel::vexa::virtual_gpu;  // NOLINT(google-build-using-namespace)
using namespace test_support;            // NOLINT(google-build-using-namespace)

bool atfork_fails = false;

class device_access : public testing::Test {
protected:
    device_access() { machine::reset(); }
    ~device_access() override {
        EXPECT_EQ(machine::open_now(), open_counts{});
        EXPECT_TRUE(nothing_left(before_));
        machine::reset();
    }

    static uku_open_result open(uku_context& ctx, std::uint32_t instance = 0) {
        base_version_record version{.major = 11, .minor = 33};
        return uku_open(0, instance, &version, &ctx);
    }

private:
    held_resources before_ = held_resources::now();
};

// Before anything else in this process has opened a node: the fork handler can't be registered at first, and
// that is tried again. Then forks beside threads that open and close.
TEST_F(device_access, a_forked_child_has_no_node_and_can_open_its_own) {
    machine::add_node(0, {});
    std::vector<uku_context> held(5);
    atfork_fails = true;
    EXPECT_EQ(open(held[0]), UKU_OPEN_FAILURE);
    EXPECT_EQ(machine::open_now().nodes, 0U);
    atfork_fails = false;
    for (uku_context& ctx : held) {
        ASSERT_EQ(open(ctx), UKU_OPEN_SUCCESS);
    }
    const std::string report = report_from_child([&held] {
        std::string text = std::to_string(machine::open_now().nodes);
        for (const uku_context& ctx : held) {
            text += ::fcntl(ctx.fd, F_GETFD) == -1 ? " closed" : " open";
            ::dup2(STDERR_FILENO, ctx.fd);
            uku_close(&ctx);
            text += ::fcntl(ctx.fd, F_GETFD) == -1 ? ", not forgotten;" : ";";
            ::close(ctx.fd);
        }
        uku_context own{};
        text += open(own) == UKU_OPEN_SUCCESS ? " opened" : " failed";
        uku_close(&own);
        return text;
    });
    EXPECT_EQ(report, "0 closed; closed; closed; closed; closed; opened");
    std::atomic<bool> stop = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&stop] {
            while (!stop) {
                uku_context ctx{};
                EXPECT_EQ(open(ctx), UKU_OPEN_SUCCESS);
                uku_close(&ctx);
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(
            report_from_child([&held] { return ::fcntl(held[4].fd, F_GETFD) == -1 ? "closed" : "open"; }),
            "closed");
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(machine::open_now().nodes, held.size());
    for (const uku_context& ctx : held) {
        EXPECT_NE(::fcntl(ctx.fd, F_GETFD), -1);
        uku_close(&ctx);
    }
}

TEST_F(device_access, versions_are_compared) {
    struct {
        interface_version driver;
        std::uint32_t result;
    } const cases[] = {
        {{11, 33}, 0}, {{11, 65535}, 0}, {{11, 32}, 1}, {{10, 33}, 1}, {{12, 34}, 1},
    };
    for (const auto& [driver, result] : cases) {
        SCOPED_TRACE(std::to_string(driver.major) + "." + std::to_string(driver.minor));
        machine::add_node(3, {.kernel_version = driver});
        machine::clear_requests();
        base_version_record version{.major = 11, .minor = 33};
        uku_context ctx{.fd = -1, .instance = 77};
        ASSERT_EQ(uku_open(0, 3, &version, &ctx), result);
        EXPECT_TRUE(version.major == driver.major && version.minor == driver.minor);
        EXPECT_EQ(ctx.instance, 77U);  // not this function's business
        EXPECT_EQ(::fcntl(uku_get_fd(&ctx), F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(::fcntl(uku_get_fd(&ctx), F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR | O_NONBLOCK);
        const auto requests = machine::requests();
        ASSERT_EQ(requests.size(), 4U);
        EXPECT_EQ(requests[3].number, 0xc0048000);
        EXPECT_EQ(requests[3].argument, (std::vector{std::byte{11}, {}, std::byte{33}, {}}));
        uku_close(&ctx);
        EXPECT_EQ(machine::open_now().nodes, 0U);
        const int reused = ::dup(STDERR_FILENO);
        EXPECT_EQ(reused, ctx.fd);
        uku_close(&ctx);  // knows nothing of it any more
        EXPECT_EQ(::close(reused), 0);
    }
}

TEST_F(device_access, every_failure_leaves_nothing_open) {
#ifdef __ANDROID__
    GTEST_SKIP() << "the C++ library is in the program there, and its memory would fail as well";
#endif
    const temporary_folder folder;
    std::ofstream(folder.file("regular")) << "no device";
    std::filesystem::create_symlink("nowhere", folder.file("dangling"));
    machine::add_node(0, {});
    machine::add_file(1, folder.file("regular"));
    machine::add_file(2, folder.file(""));
    machine::add_file(3, folder.file("dangling"));
    machine::add_file(4, "/dev/zero");  // a character device that answers no request
    struct {
        std::uint32_t client = 0, instance = 0;
        request_kind failing = request_kind::unknown;
        int error = 0, failing_malloc = 0;
    } const cases[] = {
        {1},     // another client
        {0, 1},  // files that are no node
        {0, 2},
        {0, 3},
        {0, 4},
        {0, 0, request_kind::open, EACCES},
        {0, 0, request_kind::fstat, EIO},
        {0, 0, request_kind::version_check, ENOMEM},
        {0, 0, request_kind::version_check, EBUSY},
        {0, 0, request_kind::version_check, ENOTTY},  // and no second number
        {0, 0, request_kind::unknown, 0, 1},
    };
    const held_resources before = held_resources::now();
    for (const auto& [client, instance, failing, error, failing_malloc] : cases) {
        SCOPED_TRACE(testing::Message()
                     << "instance " << instance << ", request " << static_cast<int>(failing));
        own_time time;
        machine::fail(failing, error);
        calls.failing_malloc = failing_malloc;
        base_version_record version{.major = 11, .minor = 33};
        uku_context ctx{.fd = -1, .instance = 0};
        EXPECT_EQ(uku_open(client, instance, &version, &ctx), 2U);
        uku_close(&ctx);
        EXPECT_EQ(machine::open_now().nodes, 0U);
        EXPECT_EQ(held_resources::now().descriptors, before.descriptors);
    }
    EXPECT_TRUE(take_log_lines().empty());
}

TEST_F(device_access, a_missing_node_is_looked_for_every_10_ms_for_5_s) {
    own_time time;
    const std::uint64_t begin = time.microseconds;
    uku_context ctx{};
    EXPECT_EQ(open(ctx), UKU_OPEN_FAILURE);
    EXPECT_EQ(time.microseconds - begin, 5'000'000U);
    auto requests = machine::requests();
    ASSERT_EQ(requests.size(), 501U);  // there is no look after the last sleep, but an attempt to open
    EXPECT_EQ(requests.back().kind, request_kind::open);
    EXPECT_EQ(requests.front().kind, request_kind::stat);

    int sleeps = 0;
    time.in_sleep = [&sleeps] {
        if (++sleeps == 100) {
            machine::add_node(0, {});
        }
    };
    ASSERT_EQ(open(ctx), UKU_OPEN_SUCCESS);
    EXPECT_EQ(sleeps, 100);
    uku_close(&ctx);
    machine::add_node(123456, {});
    ASSERT_EQ(open(ctx, 1234567), UKU_OPEN_SUCCESS) << "names have no room for more";
    uku_close(&ctx);
}

TEST_F(device_access, which_gpus_are_accepted) {
    struct {
        std::uint32_t id;
        std::uint16_t major, minor, status;
        const char* detected;  // the end of the message; null for an accepted GPU
    } const cases[] = {
        {0x9002, 0, 0, 0, nullptr},
        {0x9002, 7, 9, 15, nullptr},
        {0x19ff2, 0, 0, 3, nullptr},
        {0x9004, 1, 1, 65535, nullptr},
        {0x9002, 1, 2, 16, "0x9002 r1p2 status 16."},
        {0x9003, 1, 0, 0, "0x9003 r1p0 status 0."},
        {0xa007, 0, 1, 5, "0xa007 r0p1 status 5."},
        {0xb002, 3, 4, 5, "0xb002 r0p0 status 0."},
        {0xb5f3, 3, 4, 5, "0xb5f3 r0p0 status 0."},
        {0x1a002, 65535, 65535, 65535, "0x1a002 r65535p65535 status 65535."},
        {0xffffffff, 1, 0, 0, "0xffffffff r1p0 status 0."},
    };
    for (const auto& [id, major, minor, status, detected] : cases) {
        SCOPED_TRACE(id);
        base_gpu_props props{};
        props.product_id = id;
        props.major_revision = major;
        props.minor_revision = minor;
        props.version_status = status;
        EXPECT_EQ(uku_ddk_compatible(&props, 0, 4294967295), detected == nullptr ? 1U : 0U);
        EXPECT_TRUE(take_log_lines().empty());
        EXPECT_EQ(uku_ddk_compatible(&props, 1, 12), detected == nullptr ? 1U : 0U);
        std::vector<log_line> expected;
        if (detected != nullptr) {
            expected = {{6, "vexa",
                         "ERROR: The DDK (built for 0x90020000 r0p0 status range [0..15]) is not compatible "
                         "with this Vexa GPU device, /dev/vexa12 detected as " +
                             std::string(detected) + "\n"}};
        }
        EXPECT_EQ(take_log_lines(), expected);
    }
}

}  // namespace

extern "C" {

int __real_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)());
int __wrap_pthread_atfork(void (*prepare)(), void (*parent)(), void (*child)()) {
    return atfork_fails ? ENOMEM : __real_pthread_atfork(prepare, parent, child);
}

}  // extern "C"
