// A test's body in a child process, for state that a process has once.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace test_support {

// Runs `body` in a child, whose end it is, and gives the text that it returned. A child that doesn't get so
// far fails the test.
template <typename Body>
std::string report_from_child(Body body) {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(ends[0]);
        const std::string report = body();
        const bool sent =
            ::write(ends[1], report.data(), report.size()) == static_cast<ssize_t>(report.size());
        ::_exit(sent && !testing::Test::HasFailure() ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    ::close(ends[1]);
    std::string report;
    char part[256];
    for (ssize_t size = 0; (size = ::read(ends[0], part, sizeof part)) > 0;) {
        report.append(part, static_cast<std::size_t>(size));
    }
    ::close(ends[0]);
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "of the child";
    return report;
}

}  // namespace test_support
