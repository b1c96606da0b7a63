// The device nodes of the virtual GPU, through the C library's own calls.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <tuple>

#include "gtest/gtest.h"
#include "virtual_gpu/machine.h"

extern "C" int __open_2(const char* path, int flags);
extern "C" int __open64_2(const char* path, int flags);

namespace qel::vexa::virtual_gpu {
namespace {

using enum request_kind;

constexpr char node_path[] = "/dev/vexa0";
// In the order of a process that asks for everything.
const std::map<request_kind, std::uint32_t> numbers = {
    {version_check, 0xc0048000},  {version_check_second, 0xc0048034}, {set_flags, 0x40048001},
    {get_properties, 0x40108003}, {reader_setup, 0x40148008},
};

// 0 or the error number. The record suits every request; of the properties it asks the length.
int ask(int fd, request_kind kind) {
    std::uint32_t record[5] = {};
    record[0] = kind == reader_setup ? 1 : 0;
    const int result = ::ioctl(fd, numbers.at(kind), record);
    if (result >= 0 && kind == reader_setup) {
        ::close(result);
    }
    return result < 0 ? errno : 0;
}

// Fills the bytes with the properties. Their length, or a negative error number; no bytes ask for the length.
int fetch(int fd, std::string& bytes) {
    const auto address = reinterpret_cast<std::uintptr_t>(bytes.data());
    // The upper half of the second word are flags, none.
    std::uint64_t request[2] = {bytes.empty() ? 0 : address, bytes.size()};
    const int length = ::ioctl(fd, numbers.at(get_properties), request);
    return length < 0 ? -errno : length;
}

// The last request of a process that stops at the first error, and what it came to.
std::pair<request_kind, int> run_session() {
    struct ::stat status {};
    if (::stat(node_path, &status) != 0) {
        return {stat, errno};
    }
    const int fd = ::open(node_path, O_RDWR);
    std::pair<request_kind, int> last{open, fd < 0 ? errno : 0};
    for (auto next = numbers.begin(); last.second == 0 && next != numbers.end(); ++next) {
        last = {next->first, ask(fd, next->first)};
    }
    ::close(fd);
    return last;
}

TEST(DeviceNode, EveryCallOpensItAndNothingElse) {
    int (*const openers[])(const char* path, int flags) = {
        [](const char* path, int flags) { return ::open(path, flags); },
        [](const char* path, int flags) { return ::open64(path, flags); },
        [](const char* path, int flags) { return ::openat(AT_FDCWD, path, flags); },
        [](const char* path, int flags) { return ::openat64(-1, path, flags); },
        __open_2,
        __open64_2};
    machine::add_node(0, {});
    for (const auto open_it : openers) {
        const int fd = open_it(node_path, O_RDWR | O_CLOEXEC);
        EXPECT_EQ(ask(fd, version_check), 0);
        EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
        ::syscall(SYS_close, fd);  // not through the stand-in
        ASSERT_EQ(open_it("/dev/zero", O_RDONLY), fd);
        char byte = 1;
        EXPECT_EQ(::read(fd, &byte, 1), 1);
        EXPECT_NE(ask(fd, version_check), 0) << "the number was a GPU's before";
        ::syscall(SYS_close, fd);
        ASSERT_EQ(open_it(node_path, O_RDWR), fd);
        EXPECT_EQ(ask(fd, set_flags), EPERM) << "a new open starts anew";
        EXPECT_EQ(::close(fd), 0);
        EXPECT_LT(::close(fd), 0);
        EXPECT_LT(open_it("/dev/vexa1", O_RDWR), 0);
        EXPECT_LT(open_it("/dev/vexa0x", O_RDWR), 0);
    }
}

TEST(DeviceNode, RequestsHaveAnOrder) {
    machine::add_node(0, {.kernel_version = {11, 40}});
    for (const request_kind first : {version_check, version_check_second}) {
        const int fd = ::open(node_path, O_RDWR);
        EXPECT_EQ(ask(fd, set_flags), EPERM);
        EXPECT_EQ(ask(fd, get_properties), EPERM);
        unsigned char version[6] = {11, 0, 33, 0, 0x5a, 0x5a};
        EXPECT_EQ(::ioctl(fd, numbers.at(first), version), 0);
        EXPECT_EQ(std::memcmp(version, "\x0b\0\x28\0\x5a\x5a", sizeof version), 0);
        EXPECT_EQ(ask(fd, get_properties), EPERM);
        EXPECT_EQ(ask(fd, reader_setup), EPERM);
        EXPECT_EQ(ask(fd, set_flags), 0);
        EXPECT_EQ(ask(fd, set_flags), EPERM);
        EXPECT_EQ(ask(fd, get_properties), 0);
        EXPECT_EQ(ask(fd, reader_setup), 0);
        ::close(fd);
    }
}

TEST(DeviceNode, PropertiesComeWholeOrNotAtAll) {
    machine::add_node(0, {.core_group_masks = {0xf, 0xf0'0000'00f0}, .l2_slices = 2, .bus_width_bytes = 32});
    const int fd = ::open(node_path, O_RDWR);
    EXPECT_EQ(ask(fd, version_check) + ask(fd, set_flags), 0);
    std::string blob;
    const int length = fetch(fd, blob);
    ASSERT_GT(length, 0);
    blob.resize(static_cast<std::size_t>(length) - 1, 'Z');
    EXPECT_EQ(fetch(fd, blob), -EINVAL);
    EXPECT_EQ(blob, std::string(blob.size(), 'Z'));
    blob += 'Z';
    EXPECT_EQ(fetch(fd, blob), length);
    ::close(fd);

    std::map<std::uint32_t, std::pair<unsigned, std::uint64_t>> properties;  // width and value by key
    std::istringstream records(blob);
    for (std::uint32_t header = 0; records.read(reinterpret_cast<char*>(&header), sizeof header);) {
        const unsigned width = 1U << (header & 3);
        std::uint64_t value = 0;
        records.read(reinterpret_cast<char*>(&value), width);
        properties[header >> 2] = {width, value};
    }
    const std::tuple<std::uint32_t, unsigned, std::uint64_t> expected[] = {
        {1, 4, 0x9002},          {15, 1, 2}, {25, 8, 0xf0'0000'00ff},
        {29, 4, 0x0812'0406},    {62, 4, 2}, {64, 8, 0xf},
        {65, 8, 0xf0'0000'00f0}, {79, 8, 0}, {82, 1, 1}};
    for (const auto& [key, width, value] : expected) {
        EXPECT_EQ(properties[key], std::pair(width, value)) << key;
    }
    EXPECT_EQ(properties.size(), 83U) << "a driver delivers every key";
}

TEST(DeviceNode, APathLeadsWhereItIsTold) {
    const std::string folder = testing::TempDir();
    const std::string file = folder + "virtual_gpu_file";
    std::ofstream(file) << "text";
    machine::add_node(0, {});
    machine::add_file(1, file);
    machine::add_file(2, folder);
    machine::add_file(3, folder + "virtual_gpu_nowhere");
    // By instance.
    const std::tuple<int, unsigned, int> expected[] = {
        {0, S_IFCHR, 0}, {0, S_IFREG, 0}, {0, S_IFDIR, EISDIR}, {ENOENT, 0, ENOENT}, {ENOENT, 0, ENOENT}};
    int (*const askers[])(const char* path, unsigned& mode) = {
        [](const char* path, unsigned& mode) {
            struct ::stat status {};
            const int result = ::stat(path, &status);
            mode = status.st_mode;
            return result;
        },
        [](const char* path, unsigned& mode) {
            struct ::stat64 status {};
            const int result = ::fstatat64(AT_FDCWD, path, &status, 0);
            mode = status.st_mode;
            return result;
        },
        [](const char* path, unsigned& mode) {
            struct ::statx status {};
            const int result = ::statx(-1, path, 0, STATX_TYPE, &status);
            mode = status.stx_mode;
            return result;
        }};
    for (unsigned instance = 0; instance < std::size(expected); ++instance) {
        const std::string path = "/dev/vexa" + std::to_string(instance);
        const auto& [stat_error, type, open_error] = expected[instance];
        for (const auto asker : askers) {
            unsigned mode = 0;
            EXPECT_EQ(asker(path.c_str(), mode) < 0 ? errno : 0, stat_error) << path;
            EXPECT_EQ(mode & S_IFMT, type) << path;
        }
        const int fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK);
        EXPECT_EQ(fd < 0 ? errno : 0, open_error) << path;
        struct ::stat status {};
        EXPECT_TRUE(fd < 0 || (::fstat(fd, &status) == 0 && (status.st_mode & S_IFMT) == type)) << path;
        EXPECT_TRUE(fd < 0 || instance == 0 || ask(fd, version_check) != 0) << path;
        ::close(fd);
    }
    std::remove(file.c_str());
}

TEST(DeviceNode, ALateOneAppearsInTime) {
    const auto begin = std::chrono::steady_clock::now();
    machine::add_node_later(0, {}, std::chrono::milliseconds(50));
    EXPECT_EQ(run_session(), std::pair(stat, ENOENT));
    EXPECT_LT(::open(node_path, O_RDWR), 0);
    while (run_session().second == ENOENT) {
        ::usleep(1000);
    }
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
    EXPECT_EQ(run_session(), std::pair(reader_setup, 0));
}

TEST(DeviceNode, EachRequestCanBeMadeToFail) {
    constexpr std::pair unharmed{reader_setup, 0};
    machine::add_node(0, {});
    for (const request_kind kind :
         {stat, open, version_check, version_check_second, set_flags, get_properties, reader_setup}) {
        machine::fail(kind, EBUSY, 2);
        EXPECT_EQ(run_session(), unharmed);
        EXPECT_EQ(run_session(), std::pair(kind, EBUSY));
        EXPECT_EQ(machine::requests().back().result, -EBUSY);
        EXPECT_EQ(run_session(), unharmed);
        machine::fail_always(kind, ENOMEM);
        EXPECT_EQ(run_session(), std::pair(kind, ENOMEM));
        EXPECT_EQ(run_session(), std::pair(kind, ENOMEM));
        machine::fail(kind, 0);
    }
}

}  // namespace
}  // namespace qel::vexa::virtual_gpu
