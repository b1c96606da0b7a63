// The device nodes of the virtual GPU, through the C library's own calls.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <thread>
#include <tuple>

#include "gtest/gtest.h"
#include "virtual_gpu/machine.h"

extern "C" {
int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
}

namespace qel::vexa::virtual_gpu {
namespace {

constexpr char node_path[] = "/dev/vexa0";

struct property_request {
    std::uint64_t buffer = 0;
    std::uint32_t size = 0;
    std::uint32_t flags = 0;
};

// What a call came to: 0 or its error number.
int outcome(int result) {
    return result < 0 ? errno : 0;
}

int check_version(int fd, unsigned number = 0xc0048000) {
    std::uint16_t version[2] = {};
    return outcome(::ioctl(fd, number, version));
}
// What the system itself says to a version check.
int check_version_without_gpu(int fd) {
    std::uint16_t version[2] = {};
    return outcome(static_cast<int>(::syscall(SYS_ioctl, fd, 0xc0048000, version)));
}
int set_flags(int fd) {
    std::uint32_t flags = 2;
    return outcome(::ioctl(fd, 0x40048001, &flags));
}
int ask_length(int fd) {
    property_request request;
    return ::ioctl(fd, 0x40108003, &request);
}
int fetch(int fd, std::vector<unsigned char>& bytes) {
    property_request request{.buffer = reinterpret_cast<std::uintptr_t>(bytes.data()),
                             .size = static_cast<std::uint32_t>(bytes.size()),
                             .flags = 0};
    return ::ioctl(fd, 0x40108003, &request);
}

class DeviceNode : public testing::Test {
protected:
    DeviceNode() { machine::reset(); }
    ~DeviceNode() override { machine::reset(); }

    // A node that answers everything.
    static int open_ready() {
        const int fd = ::open(node_path, O_RDWR | O_CLOEXEC);
        EXPECT_EQ(check_version(fd), 0);
        EXPECT_EQ(set_flags(fd), 0);
        return fd;
    }
};

TEST_F(DeviceNode, EveryCallOpensIt) {
    const std::pair<const char*, std::function<int(const char*, int)>> openers[] = {
        {"open", [](const char* path, int flags) { return ::open(path, flags); }},
        {"open64", [](const char* path, int flags) { return ::open64(path, flags); }},
        {"openat", [](const char* path, int flags) { return ::openat(AT_FDCWD, path, flags); }},
        {"openat64", [](const char* path, int flags) { return ::openat64(-1, path, flags); }},
        {"__open_2", __open_2},
        {"__open64_2", __open64_2},
    };
    for (const auto& [name, opener] : openers) {
        SCOPED_TRACE(name);
        machine::reset();
        EXPECT_EQ(outcome(opener(node_path, O_RDWR)), ENOENT);
        machine::add_node(0, {});
        machine::add_node(12, {});
        const int fd = opener(node_path, O_RDWR | O_CLOEXEC | O_NONBLOCK);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(::fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR | O_NONBLOCK);
        struct stat status {};
        EXPECT_EQ(::fstat(fd, &status), 0);
        EXPECT_TRUE(S_ISCHR(status.st_mode));
        EXPECT_EQ(check_version(fd), 0);
        EXPECT_EQ(::close(fd), 0);
        EXPECT_EQ(outcome(::close(fd)), EBADF);
        EXPECT_EQ(check_version(fd), check_version_without_gpu(fd));

        const int other = opener("/dev/vexa12", O_RDONLY);
        EXPECT_EQ(check_version(other), 0);
        machine::remove_node(12);
        EXPECT_EQ(check_version(other), 0) << "an open descriptor outlives its node";
        ::close(other);
        for (const char* absent : {"/dev/vexa12", "/dev/vexa1", "/dev/vexa", "/dev/vexa0x", "/dev/vexa00"}) {
            EXPECT_EQ(outcome(opener(absent, O_RDWR)), ENOENT) << absent;
        }
        const int plain = opener("/dev/zero", O_RDONLY);
        char byte = 1;
        EXPECT_EQ(::read(plain, &byte, 1), 1);
        EXPECT_EQ(check_version(plain), check_version_without_gpu(plain));
        ::close(plain);
    }
    // The mode of a file that is made gets through.
    const std::string made = testing::TempDir() + "virtual_gpu_" + std::to_string(::getpid());
    const mode_t mask = ::umask(0);
    const int fd = ::open(made.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0641);
    ::umask(mask);
    struct stat status {};
    EXPECT_EQ(::fstat(fd, &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0641U);
    ::close(fd);
    ::unlink(made.c_str());
}

TEST_F(DeviceNode, ADescriptorThatIsReusedIsNoGpu) {
    machine::add_node(0, {});
    const int fd = ::open(node_path, O_RDWR);
    ASSERT_EQ(::syscall(SYS_close, fd), 0);
    ASSERT_EQ(::open("/dev/null", O_RDWR), fd);
    EXPECT_EQ(check_version(fd), check_version_without_gpu(fd));
    ASSERT_EQ(::syscall(SYS_close, fd), 0);
    ASSERT_EQ(::open(node_path, O_RDWR), fd);
    EXPECT_EQ(set_flags(fd), EPERM) << "a new open starts anew";
    EXPECT_EQ(check_version(fd), 0);
    ::close(fd);
}

TEST_F(DeviceNode, RequestsHaveAnOrder) {
    machine::add_node(0, {.kernel_version = {11, 40}});
    for (const unsigned first : {0xc0048000U, 0xc0048034U}) {
        const int fd = ::open(node_path, O_RDWR);
        EXPECT_EQ(set_flags(fd), EPERM);
        EXPECT_EQ(outcome(ask_length(fd)), EPERM);
        unsigned char version[6] = {11, 0, 33, 0, 0x5a, 0x5a};
        EXPECT_EQ(::ioctl(fd, first, version), 0);
        EXPECT_EQ(std::memcmp(version, "\x0b\0\x28\0\x5a\x5a", sizeof version), 0);
        EXPECT_EQ(outcome(ask_length(fd)), EPERM);
        EXPECT_EQ(set_flags(fd), 0);
        EXPECT_EQ(set_flags(fd), EPERM);
        EXPECT_GT(ask_length(fd), 0);
        std::uint32_t setup[5] = {};
        EXPECT_EQ(outcome(::ioctl(fd, 0x40148008, setup)), ENOTTY);
        EXPECT_EQ(outcome(::ioctl(fd, 0xc0048001, setup)), ENOTTY);
        EXPECT_EQ(outcome(::ioctl(fd, 0xc0048000, nullptr)), EFAULT);
        ::close(fd);
    }
}

TEST_F(DeviceNode, PropertiesComeWholeOrNotAtAll) {
    machine::add_node(0,
                      {.raw_properties = std::vector<std::byte>{std::byte{1}, std::byte{2}, std::byte{3}}});
    const int fd = open_ready();
    EXPECT_EQ(ask_length(fd), 3);
    std::vector<unsigned char> bytes(2, 0x5a);
    EXPECT_EQ(outcome(fetch(fd, bytes)), EINVAL);
    EXPECT_EQ(bytes, std::vector<unsigned char>(2, 0x5a));
    bytes.assign(5, 0x5a);
    EXPECT_EQ(fetch(fd, bytes), 3);
    EXPECT_EQ(bytes, (std::vector<unsigned char>{1, 2, 3, 0x5a, 0x5a}));
    property_request request{.buffer = 0, .size = 5, .flags = 0};
    EXPECT_EQ(outcome(::ioctl(fd, 0x40108003, &request)), EFAULT);
    request = {.buffer = 0, .size = 0, .flags = 1};
    EXPECT_EQ(outcome(::ioctl(fd, 0x40108003, &request)), EINVAL);
    ::close(fd);
}

TEST_F(DeviceNode, PropertiesDescribeTheGpu) {
    machine::add_node(0, {.product_id = 0x19004,
                          .version_status = 7,
                          .major_revision = 3,
                          .minor_revision = 5,
                          .core_group_masks = {0xf, 0xf0'0000'00f0},
                          .core_group_count = 3,
                          .l2_slices = 2,
                          .bus_width_bytes = 32,
                          .clock_hz = 950'000'000});
    const int fd = open_ready();
    std::vector<unsigned char> blob(static_cast<std::size_t>(ask_length(fd)));
    EXPECT_EQ(fetch(fd, blob), static_cast<int>(blob.size()));
    ::close(fd);
    ASSERT_GE(blob.size(), 8U);
    EXPECT_EQ(std::memcmp(blob.data(), "\x06\0\0\0\x04\x90\x01", 8), 0);

    std::map<unsigned, std::pair<unsigned, std::uint64_t>> properties;  // width and value by key
    for (std::size_t i = 0; i < blob.size();) {
        const auto take = [&](unsigned size) {
            std::uint64_t value = 0;
            for (unsigned byte = 0; byte < size; ++byte) {
                value |= std::uint64_t{blob.at(i++)} << (8 * byte);
            }
            return value;
        };
        const auto header = static_cast<unsigned>(take(4));
        const unsigned size = 1U << (header & 3);
        EXPECT_TRUE(properties.emplace(header >> 2, std::pair(size, take(size))).second) << (header >> 2);
    }
    const std::tuple<unsigned, unsigned, std::uint64_t> expected[] = {
        {1, 4, 0x19004},     {2, 2, 7},  {3, 2, 5},       {4, 2, 3},
        {6, 4, 950'000},     {15, 1, 2}, {21, 2, 0x8000}, {25, 8, 0xf0'0000'00ff},
        {29, 4, 0x08120406}, {62, 4, 3}, {64, 8, 0xf},    {65, 8, 0xf0'0000'00f0},
        {66, 8, 0},          {79, 8, 0}, {82, 1, 1},      {85, 8, 0}};
    for (const auto& [key, width, value] : expected) {
        EXPECT_EQ(properties[key], std::pair(width, value)) << key;
    }
    EXPECT_EQ(properties.size(), 83U) << "a driver delivers every key";
}

// A process that asks for everything. The kind of request that failed it, and with which error.
std::pair<request_kind, int> run_session() {
    const int fd = ::open(node_path, O_RDWR);
    if (fd < 0) {
        return {request_kind::open, errno};
    }
    std::vector<unsigned char> bytes(4096);
    std::uint32_t setup[5] = {};
    const std::pair<request_kind, std::function<int()>> steps[] = {
        {request_kind::version_check, [&] { return check_version(fd); }},
        {request_kind::version_check_second, [&] { return check_version(fd, 0xc0048034); }},
        {request_kind::set_flags, [&] { return set_flags(fd); }},
        {request_kind::get_properties, [&] { return outcome(ask_length(fd)); }},
        {request_kind::get_properties, [&] { return outcome(fetch(fd, bytes)); }},
        {request_kind::reader_setup, [&] { return outcome(::ioctl(fd, 0x40148008, setup)); }},
    };
    for (const auto& [kind, step] : steps) {
        if (const int error = step()) {
            ::close(fd);
            return {kind, error};
        }
    }
    ::close(fd);
    return {request_kind::unknown, 0};
}

TEST_F(DeviceNode, EachRequestCanBeMadeToFail) {
    machine::add_node(0, {});
    const auto unharmed = std::pair(request_kind::reader_setup, ENOTTY);
    ASSERT_EQ(run_session(), unharmed);
    for (const request_kind kind :
         {request_kind::open, request_kind::version_check, request_kind::version_check_second,
          request_kind::set_flags, request_kind::get_properties, request_kind::reader_setup}) {
        SCOPED_TRACE(static_cast<int>(kind));
        machine::fail(kind, EMFILE);
        EXPECT_EQ(run_session(), std::pair(kind, EMFILE));
        EXPECT_EQ(run_session(), unharmed);
        machine::fail(kind, EBUSY, 2);
        if (kind != request_kind::get_properties) {  // there the second request is in the same session
            EXPECT_EQ(run_session(), unharmed);
        }
        EXPECT_EQ(run_session(), std::pair(kind, EBUSY));
        machine::fail_always(kind, ENOMEM);
        EXPECT_EQ(run_session(), std::pair(kind, ENOMEM));
        EXPECT_EQ(run_session(), std::pair(kind, ENOMEM));
        machine::fail(kind, 0);
        EXPECT_EQ(run_session(), unharmed);
    }
}

TEST_F(DeviceNode, RequestsAreLogged) {
    machine::add_node(3, {});
    machine::fail(request_kind::open, EINTR);
    EXPECT_LT(::open("/dev/vexa3", O_RDWR), 0);
    const int fd = ::open("/dev/vexa3", O_RDWR);
    std::uint32_t flags = 0x12345678;
    EXPECT_LT(::ioctl(fd, 0x40048001, &flags), 0);
    ::close(fd);
    const std::vector<request_record> log = machine::requests();
    ASSERT_EQ(log.size(), 3U);
    EXPECT_EQ(std::tuple(log[0].kind, log[0].instance, log[0].result),
              std::tuple(request_kind::open, 3U, -EINTR));
    EXPECT_EQ(std::tuple(log[1].kind, log[1].instance, log[1].result), std::tuple(request_kind::open, 3U, 0));
    EXPECT_EQ(std::tuple(log[2].kind, log[2].number, log[2].result),
              std::tuple(request_kind::set_flags, 0x40048001U, -EPERM));
    EXPECT_EQ(log[2].argument,
              (std::vector{std::byte{0x78}, std::byte{0x56}, std::byte{0x34}, std::byte{0x12}}));
}

TEST_F(DeviceNode, ServesThreadsAndForkedChildren) {
    machine::add_node(0, {});
    std::atomic<int> sessions = 0;
    std::array<std::thread, 3> threads;
    for (std::thread& thread : threads) {
        thread = std::thread([&sessions] {
            for (int n = 0; n < 200; ++n) {
                sessions += run_session() == std::pair(request_kind::reader_setup, ENOTTY) ? 1 : 0;
            }
        });
    }
    // A child that is forked while others use the nodes must not find them locked.
    const int fd = ::open(node_path, O_RDWR);
    for (int i = 0; i < 5; ++i) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(20);
            const int own = ::open(node_path, O_RDWR);
            const bool is_good = check_version(fd) == 0 && check_version(own) == 0 && ::close(own) == 0;
            // At a plain exit the thread sanitizer would look for the threads that the child doesn't have.
            ::syscall(SYS_exit_group, is_good ? 0 : 1);
        }
        int status = -1;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(sessions, 600);
    EXPECT_EQ(set_flags(fd), EPERM) << "what a child did is its own affair";
    ::close(fd);
}

}  // namespace
}  // namespace qel::vexa::virtual_gpu
