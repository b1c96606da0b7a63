// The device nodes of the virtual GPU, through the C library's own calls.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <string>

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

TEST(DeviceNode, EveryCallOpensItAndNothingElse) {
    int (*const openers[])(const char* path, int flags) = {
        [](const char* path, int flags) { return ::open(path, flags); },
        [](const char* path, int flags) { return ::open64(path, flags); },
        [](const char* path, int flags) { return ::openat(AT_FDCWD, path, flags); },
        [](const char* path, int flags) { return ::openat64(-1, path, flags); },
#ifndef __ANDROID__  // whose C library has one name for both
        __open64_2,
#endif
        __open_2};
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
        EXPECT_EQ(ask(fd, reader_setup), EPERM);
        EXPECT_EQ(ask(fd, set_flags), 0);
        EXPECT_EQ(ask(fd, set_flags), EPERM);
        EXPECT_EQ(ask(fd, reader_setup), 0);

        // The properties come whole or not at all.
        std::uint64_t request[2] = {};
        const int length = ::ioctl(fd, numbers.at(get_properties), request);
        std::string blob(static_cast<std::size_t>(length), 'Z');
        request[0] = reinterpret_cast<std::uintptr_t>(blob.data());
        request[1] = blob.size() - 1;
        EXPECT_LT(::ioctl(fd, numbers.at(get_properties), request), 0);
        EXPECT_EQ(blob, std::string(blob.size(), 'Z'));
        ++request[1];
        EXPECT_EQ(::ioctl(fd, numbers.at(get_properties), request), length);
        EXPECT_NE(blob.back(), 'Z');
        ::close(fd);
    }
}

TEST(DeviceNode, CanComeLate) {
    const auto begin = std::chrono::steady_clock::now();
    machine::add_node_later(0, {}, std::chrono::milliseconds(50));
    struct ::stat status {};
    while (::stat(node_path, &status) < 0) {
        ::usleep(1000);
    }
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
    EXPECT_TRUE(S_ISCHR(status.st_mode));
}

}  // namespace
}  // namespace qel::vexa::virtual_gpu
