// A process's side of the kernel interface, by the C library's calls alone: opens a node and one counter
// reader on it.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace qel::vexa::virtual_gpu {

// 0 or the error number.
template <typename Argument>
int ask(int fd, std::uint32_t number, Argument argument) {
    return ::ioctl(fd, number, argument) < 0 ? errno : 0;
}

class driver_client {
public:
    explicit driver_client(std::uint32_t buffers = 32, const char* path = "/dev/vexa0") {
        std::uint32_t word[5] = {};
        node = ::open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (fails(ask(node, 0xc0048000, word)) || fails(ask(node, 0x40048001, word))) {
            return;
        }
        page = ::mmap(nullptr, 4096, PROT_NONE, MAP_SHARED, node, 0x3000);
        if (fails(page == MAP_FAILED ? errno : 0)) {
            return;
        }
        std::uint32_t setup[] = {buffers, ~0U, ~0U, ~0U, ~0U};
        reader = ::ioctl(node, 0x40148008, setup);
        if (fails(reader < 0 ? errno : 0) || fails(ask(reader, 0x8004be01, &sample_size))) {
            return;
        }
        ring_size = std::size_t{sample_size} * buffers;
        ring = ::mmap(nullptr, ring_size, PROT_READ, MAP_PRIVATE, reader, 0);
        fails(ring == MAP_FAILED ? errno : 0);
    }
    ~driver_client() {
        if (ring != MAP_FAILED) {
            ::munmap(ring, ring_size);
        }
        ::close(reader);
        if (page != MAP_FAILED) {
            ::munmap(page, 4096);
        }
        ::close(node);
    }
    driver_client(const driver_client&) = delete;
    driver_client& operator=(const driver_client&) = delete;

    struct metadata {
        std::uint64_t timestamp;
        std::uint32_t event;
        std::uint32_t buffer;
        std::uint64_t cycles[2];
    };

    bool begin(std::uint32_t interval) const {
        return ask(reader, 0x4004be11, 0) == 0 && ask(reader, 0x4004be30, interval) == 0;
    }
    // The events on the reader's descriptor; negative: the error number.
    int wait(int timeout_ms = 10'000) const {
        pollfd one{.fd = reader, .events = POLLIN, .revents = 0};
        return ::poll(&one, 1, timeout_ms) < 0 ? -errno : one.revents;
    }
    int get(metadata& of) const { return ask(reader, 0x8020be20, &of); }
    int put(metadata& of) const { return ask(reader, 0x4020be21, &of); }
    const std::uint32_t* words(const metadata& of) const {
        return static_cast<const std::uint32_t*>(ring) + std::size_t{sample_size} / 4 * of.buffer;
    }

    int error = 0;  // what stopped the setup
    int node = -1;
    int reader = -1;
    void* page = MAP_FAILED;
    void* ring = MAP_FAILED;
    std::uint32_t sample_size = 0;
    std::size_t ring_size = 0;

private:
    bool fails(int what) {
        error = what;
        return what != 0;
    }
};

}  // namespace qel::vexa::virtual_gpu
