#include "tests/support/log_receiver.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <ostream>
#include <stdexcept>
#include <string_view>

namespace test_support {

namespace {

constexpr char socket_path[] = "/dev/socket/logdw";
constexpr char events_log = 2;  // numbers, no text: the log library counts there what it has lost

#pragma pack(push, 1)
struct log_header {
    std::uint8_t log;
    std::uint16_t thread;
    std::uint32_t seconds;
    std::uint32_t nanoseconds;
    std::uint8_t priority;
};
#pragma pack(pop)
static_assert(sizeof(log_header) == 12);

}  // namespace

void PrintTo(const logged_line& line, std::ostream* out) {
    *out << "log " << line.log << ' ' << line.priority << '/' << line.tag << ": \"" << line.text << '"';
}

log_receiver::log_receiver() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::memcpy(address.sun_path, socket_path, sizeof socket_path);
    if (::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(socket_);
        throw std::runtime_error(std::string("no socket for the log: ") + std::strerror(errno));
    }
}

log_receiver::~log_receiver() {
    ::unlink(socket_path);
    ::close(socket_);
}

std::vector<logged_line> log_receiver::take() {
    std::vector<logged_line> lines;
    char bytes[8192];
    for (ssize_t size = 0; (size = ::recv(socket_, bytes, sizeof bytes, 0)) > 0;) {
        const std::string_view line(bytes, static_cast<std::size_t>(size));
        if (line.front() == events_log) {
            continue;
        }
        const std::string_view words = line.substr(std::min(line.size(), sizeof(log_header)));
        const std::size_t end = words.find('\0');
        if (end == std::string_view::npos || words.find('\0', end + 1) != words.size() - 1) {
            ADD_FAILURE() << "a line of " << size << " bytes: " << testing::PrintToString(line);
            continue;
        }
        log_header header{};
        std::memcpy(&header, bytes, sizeof header);
        lines.push_back({.log = header.log,
                         .priority = header.priority,
                         .tag = std::string(words.substr(0, end)),
                         .text = std::string(words.substr(end + 1, words.size() - end - 2))});
    }
    return lines;
}

}  // namespace test_support
