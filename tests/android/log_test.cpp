// What the library logs, as it arrives where a device's log is kept, and that it can do without.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <optional>

#include "tests/support/log_receiver.h"
#include "tests/support/tracing_service.h"

namespace {

using test_support::log_receiver;
using test_support::logged_line;

using lines = std::vector<logged_line>;

constexpr unsigned main_log = 0;
constexpr int error = 6;
constexpr int warning = 5;

// All but what the tracing SDK, the linker and the log library say of themselves.
lines own_lines(log_receiver& receiver) {
    lines result = receiver.take();
    std::erase_if(result, [](const logged_line& line) {
        return line.log != main_log || line.tag == "perfetto" || line.tag == "linker";
    });
    return result;
}

// A session with a counter that there is not, on a GPU whose driver is not for this library: lines of the
// tracing side, and of diagnostics before them.
const lines refusal = {
    {main_log, error, "vexa",
     "ERROR: The DDK (built for 0x90020000 r0p0 status range [0..15]) is not compatible with this Vexa GPU "
     "device, "
     "/dev/vexa0 detected as 0x7003 r0p0 status 0.\n"},
    {main_log, error, "vexa", "Failed creating base context during DDK compatibility check.\n"},
    {main_log, error, "vexa_gpu_data_source", "Failed to initialize HWC reader\n"},
    {main_log, error, "vexa_gpu_data_source", "Couldn't start because OnSetup failed"}};
constexpr const char* refused_gpu = "id=0x7003";

class launched {
public:
    explicit launched(const std::string& gpu, const std::string& settings = "/nonexistent")
        : launcher(test_support::launcher_setup(gpu, service.folder.file("output"), [&] {
              std::vector<std::string> environment = service.environment();
              environment.push_back("VEXA_CONFIG=" + settings);
              return environment;
          }())) {}

    void record(std::uint32_t counter = 65535) const {
        EXPECT_TRUE(test_support::eventually(
            [this] { return service.query().find("gpu.counters") != std::string::npos; }));
        EXPECT_NE(service.record(test_support::session_config({counter}, 100)), "");
    }

    test_support::tracing_service service;
    test_support::process launcher;
};

TEST(PlatformLog, GetsEachLineWithItsPriorityAndTag) {
    log_receiver receiver;
    for (const char* gpu : {"none", "id=0x7004", "id=0x0ff0"}) {
        EXPECT_EQ(launched(gpu).launcher.wait(), 1);
        EXPECT_EQ(own_lines(receiver),
                  (lines{{main_log, error, "counterfeed", "Failed to register vexa_gpu_data_source\n"}}))
            << gpu;
    }
    launched("id=0x9002").record(9999);
    EXPECT_EQ(own_lines(receiver), (lines{{main_log, warning, "vexa_gpu_data_source",
                                           "Unexpected counter id 9999 specified, ignoring\n"}}));
    launched(refused_gpu).record();
    EXPECT_EQ(own_lines(receiver), refusal);

    // What is said while diagnostics starts.
    const test_support::temporary_folder folder;
    const std::string settings = folder.file("settings");
    std::ofstream(settings) << "no setting\n";
    launched("id=0x9002", settings).record();
    const lines early = own_lines(receiver);
    ASSERT_EQ(early.size(), 1U);
    EXPECT_EQ(early[0].priority, error);
    EXPECT_EQ(early[0].tag, "vexa");
    EXPECT_NE(early[0].text.find("\nParse error on line 1 of " + settings + ": Key delimiter not found."),
              std::string::npos)
        << early[0].text;
}

// Fills the queue of the receiver's socket.
void stuff() {
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/dev/socket/logdw"};
    const char line[] = "\0\0\0\0\0\0\0\0\0\0\0\4stuffing\0it";
    while (::sendto(socket, line, sizeof line, 0, reinterpret_cast<const sockaddr*>(&address),
                    sizeof address) > 0) {
    }
    EXPECT_EQ(errno, EAGAIN);
    ::close(socket);
}

// One launcher meets all of it, and logs again as soon as there is someone to listen.
TEST(PlatformLog, MayBeMissingFullOrGone) {
    const launched device(refused_gpu);
    const auto refuses = [&device] {
        const auto before = std::chrono::steady_clock::now();
        device.record();
        EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(20));
    };
    refuses();
    std::optional<log_receiver> receiver(std::in_place);
    refuses();
    EXPECT_EQ(own_lines(*receiver), refusal);
    stuff();
    refuses();
    for (const logged_line& line : own_lines(*receiver)) {
        EXPECT_EQ(line.tag, "stuffing");
    }
    receiver.reset();
    refuses();
    receiver.emplace();
    refuses();
    EXPECT_EQ(own_lines(*receiver), refusal);
}

}  // namespace
