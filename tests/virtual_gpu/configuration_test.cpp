// The text that configures the preloaded form.

#include "virtual_gpu/configuration.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <sstream>
#include <tuple>

#include "gtest/gtest.h"

namespace qel::vexa::virtual_gpu {
namespace {

TEST(Configuration, DescribesSeveralGpus) {
    std::string error;
    const auto all = parse_configuration(
        "features=1,period=7;;legacy=1,hwver=9,late=1500,source=formula,failures=get_buffer@5=EIO:stat=2",
        error);
    ASSERT_TRUE(all) << error;
    ASSERT_EQ(all->machine.nodes.size(), 3U);
    EXPECT_EQ(all->machine.nodes[0].gpu.reader_features, 1U);
    EXPECT_EQ(all->period_ns, 7U);
    EXPECT_EQ(all->machine.nodes[1].gpu.source, source_kind::workload);
    const initial_node& last = all->machine.nodes[2];
    EXPECT_TRUE(last.gpu.is_legacy);
    EXPECT_EQ(last.gpu.counter_hardware_version, 9U);
    EXPECT_EQ(last.gpu.source, source_kind::formula);
    EXPECT_EQ(last.delay, std::chrono::milliseconds(1500));
    const auto& failures = all->machine.failures;
    ASSERT_EQ(failures.size(), 2U);
    EXPECT_EQ(std::tuple(failures[0].kind, failures[0].error, failures[0].nth),
              std::tuple(request_kind::get_buffer, EIO, 5U));
    EXPECT_EQ(std::tuple(failures[1].kind, failures[1].error, failures[1].nth),
              std::tuple(request_kind::stat, ENOENT, 0U));
    EXPECT_TRUE(parse_configuration("none", error)->machine.nodes.empty());
}

TEST(Configuration, MistakesAreNamed) {
    std::string error;
    std::istringstream mistakes(
        "colour=red l2=256 l2=-1 l2= l2 status=1 none id=0x id=9002h bus=12 version=11 version=1.2. "
        "groups=1: source=film period=0 clock=10001 features=4 legacy=2 late=60001 failures= "
        "failures=paint=EIO failures=open@0=EIO failures=open@1=EGREAT failures=open@1 failures=open=EIO:");
    for (std::string bad; mistakes >> bad;) {
        EXPECT_FALSE(parse_configuration("status=1," + bad + ",revision=1.2", error)) << bad;
        EXPECT_NE(error.find("bad item \"" + bad + "\""), std::string::npos) << bad << ": " << error;
    }
    EXPECT_FALSE(parse_configuration("groups=1:2,cores=7", error));
    EXPECT_FALSE(parse_configuration("id=0x100000000", error));
    EXPECT_FALSE(parse_configuration("l2=4,", error));
    EXPECT_FALSE(parse_configuration("l2=4;none", error));
    ::setenv("VIRTUAL_GPU", "l2=4,colour=red", 1);
    EXPECT_EXIT(read_environment(), testing::ExitedWithCode(2), "^VIRTUAL_GPU: bad item \"colour=red\".*\n$");
}

}  // namespace
}  // namespace qel::vexa::virtual_gpu
