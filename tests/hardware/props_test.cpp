#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "hardware/info.h"
#include "tests/support/process.h"
#include "tests/support/resources.h"
#include "virtual_gpu/machine.h"

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)
using virtual_gpu::request_kind;
namespace machine = virtual_gpu::machine;

class Props : public testing::Test {
protected:
    Props() {
        machine::reset();
        machine::add_node(0, gpu);
    }
    ~Props() override {
        EXPECT_EQ(test_support::held_resources::now().descriptors, before_.descriptors);
        machine::reset();
    }

    static hardware::property_bytes read(std::error_code& ec) { return hardware::props("/dev/vexa0", ec); }

    virtual_gpu::gpu_description gpu;

private:
    test_support::held_resources before_ = test_support::held_resources::now();
};

TEST_F(Props, RequestsAndResult) {
    std::error_code ec;
    const hardware::property_bytes bytes = read(ec);
    EXPECT_FALSE(ec);
    EXPECT_EQ(bytes, virtual_gpu::property_blob(gpu));

    const auto requests = machine::requests();
    const std::uint32_t numbers[] = {0, 0xc0048000, 0x40048001, 0x40108003, 0x40108003};
    ASSERT_EQ(requests.size(), std::size(numbers));
    for (std::size_t i = 0; i < requests.size(); ++i) {
        EXPECT_EQ(requests[i].number, numbers[i]) << i;
    }
    using record = std::vector<std::byte>;
    EXPECT_EQ(requests[1].argument, record(4));                           // asks for no version in particular
    EXPECT_EQ(requests[2].argument, (record{std::byte{2}, {}, {}, {}}));  // the creation flags
    EXPECT_EQ(requests[3].argument, record(16));                          // the length alone
    EXPECT_EQ(requests[4].result, static_cast<int>(bytes.size()));
}

TEST_F(Props, EveryRefusal) {
    const struct {
        request_kind kind;
        unsigned nth;
        int error;
        std::error_code expected;
    } cases[] = {
        {request_kind::open, 1, EACCES, {ENODEV, std::generic_category()}},
        {request_kind::version_check, 1, ENOTTY, {}},  // the second number serves
        {request_kind::set_flags, 1, EPERM, {-1, std::system_category()}},
        {request_kind::get_properties, 1, EINVAL, {-1, std::system_category()}},
        {request_kind::get_properties, 2, EIO, {-1, std::system_category()}},
    };
    for (const auto& c : cases) {
        machine::fail(c.kind, c.error, c.nth);
        std::error_code ec;
        const hardware::property_bytes bytes = read(ec);
        EXPECT_EQ(ec, c.expected) << static_cast<int>(c.kind) << ", call " << c.nth;
        EXPECT_EQ(bytes.empty(), static_cast<bool>(c.expected));
    }
    machine::fail(request_kind::version_check, EINVAL);
    machine::fail(request_kind::version_check_second, EBUSY);
    std::error_code ec;
    EXPECT_TRUE(read(ec).empty() && ec == std::error_code(-1, std::system_category()));
}

TEST_F(Props, AnyInterfaceVersionAndAnEmptyBlob) {
    gpu.kernel_version = {1, 0};
    gpu.raw_properties.emplace();
    machine::reset();
    machine::add_node(0, gpu);
    std::error_code ec;
    EXPECT_TRUE(read(ec).empty());
    EXPECT_FALSE(ec);
    // The data are asked for all the same, into no buffer.
    const auto requests = machine::requests();
    ASSERT_EQ(requests.size(), 5U);
    EXPECT_EQ(requests[4].number, 0x40108003U);
    EXPECT_EQ(requests[4].argument, std::vector<std::byte>(16));
}

TEST_F(Props, FilesThatAreNoGpu) {
    machine::reset();
    const test_support::temporary_folder folder;
    const std::string file = folder.file("plain");
    ::close(::open(file.c_str(), O_CREAT | O_WRONLY, 0600));
    const struct {
        const char* path;
        std::error_code expected;
    } cases[] = {{"/dev/vexa0", {ENODEV, std::generic_category()}},
                 {file.c_str(), {-1, std::system_category()}},
                 {"/", {ENODEV, std::generic_category()}}};
    for (const auto& c : cases) {
        std::error_code ec;
        EXPECT_TRUE(hardware::props(c.path, ec).empty());
        EXPECT_EQ(ec, c.expected) << c.path;
    }
}

}  // namespace
