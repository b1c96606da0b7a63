#include "workstation/command_line/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "workstation/command_line/program.h"

namespace qel::vexa::command_line {

namespace {

constexpr int not_started = 127;
constexpr int ended_by_signal = 128;
constexpr int poll_ms = 200;

class channel {
public:
    channel() {
        if (::pipe2(ends_.data(), O_CLOEXEC) != 0) {
            fail(exit_failure, std::string("can't make a pipe: ") + std::strerror(errno));
        }
    }
    ~channel() {
        close(0);
        close(1);
    }
    channel(const channel&) = delete;
    channel& operator=(const channel&) = delete;

    int end(std::size_t which) const { return ends_[which]; }
    void close(std::size_t which) {
        if (ends_[which] >= 0) {
            ::close(ends_[which]);
            ends_[which] = -1;
        }
    }

private:
    std::array<int, 2> ends_{};
};

// Appends what can be read; at the end or on an error the channel's end is closed.
void take(channel& from, std::string& text) {
    std::array<char, 65536> piece{};
    const ssize_t size = ::read(from.end(0), piece.data(), piece.size());
    if (size > 0) {
        text.append(piece.data(), static_cast<std::size_t>(size));
    } else if (size == 0 || errno != EINTR) {
        from.close(0);
    }
}

[[noreturn]] void become(const std::vector<std::string>& command, const std::vector<std::string>& variables) {
    ::setpgid(0, 0);
    std::signal(SIGPIPE, SIG_DFL);
    std::signal(SIGINT, SIG_DFL);
    for (const std::string& each : variables) {
        const std::size_t sign = each.find('=');
        ::setenv(each.substr(0, sign).c_str(), each.c_str() + sign + 1, 1);
    }
    std::vector<char*> words;
    words.reserve(command.size() + 1);
    for (const std::string& word : command) {
        words.push_back(const_cast<char*>(word.c_str()));
    }
    words.push_back(nullptr);
    ::execvp(words[0], words.data());
    const std::string message = "can't run " + command[0] + ": " + std::strerror(errno) + "\n";
    [[maybe_unused]] const ssize_t lost = ::write(STDERR_FILENO, message.data(), message.size());
    ::_exit(not_started);
}

}  // namespace

program_result run_program(const std::vector<std::string>& command, const std::string& input,
                           const std::vector<std::string>& variables,
                           const std::function<void(const std::string&)>& meanwhile) {
    // One that ends without reading all of its input must not end this process.
    std::signal(SIGPIPE, SIG_IGN);
    channel in;
    channel out;
    channel err;
    const pid_t child = ::fork();
    if (child < 0) {
        fail(exit_failure, std::string("can't start a process: ") + std::strerror(errno));
    }
    if (child == 0) {
        ::dup2(in.end(0), STDIN_FILENO);
        ::dup2(out.end(1), STDOUT_FILENO);
        ::dup2(err.end(1), STDERR_FILENO);
        become(command, variables);
    }
    in.close(0);
    out.close(1);
    err.close(1);
    ::fcntl(in.end(1), F_SETFL, O_NONBLOCK);

    program_result result{.status = 0, .out = {}, .err = {}};
    std::size_t written = 0;
    while (out.end(0) >= 0 || err.end(0) >= 0) {
        if (written == input.size()) {
            in.close(1);
        }
        // A closed end is negative, and left out by poll.
        std::array<pollfd, 3> ends{{{.fd = out.end(0), .events = POLLIN, .revents = 0},
                                    {.fd = err.end(0), .events = POLLIN, .revents = 0},
                                    {.fd = in.end(1), .events = POLLOUT, .revents = 0}}};
        ::poll(ends.data(), ends.size(), poll_ms);
        if (ends[0].revents != 0) {
            take(out, result.out);
        }
        if (ends[1].revents != 0) {
            take(err, result.err);
        }
        if (ends[2].revents != 0) {
            const ssize_t size = ::write(in.end(1), input.data() + written, input.size() - written);
            written = size >= 0                           ? written + static_cast<std::size_t>(size)
                      : errno == EAGAIN || errno == EINTR ? written
                                                          : input.size();
        }
        if (meanwhile) {
            meanwhile(result.out);
        }
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : ended_by_signal + WTERMSIG(status);
    return result;
}

std::string shell_line(const std::vector<std::string>& words) {
    std::string result;
    for (const std::string& word : words) {
        const bool is_plain = !word.empty() && word.find_first_not_of(
                                                   "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                                   "0123456789-_=./:,+@%") == std::string::npos;
        result += result.empty() ? "" : " ";
        if (is_plain) {
            result += word;
            continue;
        }
        result += '\'';
        for (const char c : word) {
            result += c == '\'' ? "'\\''" : std::string(1, c);
        }
        result += '\'';
    }
    return result;
}

}  // namespace qel::vexa::command_line
