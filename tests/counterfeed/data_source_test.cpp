// The data source driven by hand, without a tracing service: every step that can fail, and what is left
// behind.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <optional>

#include "hwc/measure_unit.h"
#include "tests/support/driven_data_source.h"
#include "tests/support/platform_log.h"
#include "tests/support/process.h"
#include "tests/support/readers.h"
#include "tests/support/resources.h"
#include "tests/support/wire.h"
#include "virtual_gpu/machine.h"

namespace {

std::atomic<bool> threads_fail = false;

}  // namespace

// Takes the place of the C library's, so that no thread can be had.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                              void* argument) {
    using function = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static auto* const next = reinterpret_cast<function*>(dlsym(RTLD_NEXT, "pthread_create"));
    return threads_fail ? EAGAIN : next(thread, attributes, body, argument);
}

namespace {

using namespace qel::vexa;           // NOLINT(google-build-using-namespace)
using namespace test_support::wire;  // NOLINT(google-build-using-namespace)
using counterfeed::hwc_reader;
using counterfeed::reader_factory;
using data_source = test_support::driven_data_source;
using test_support::held_resources;
using test_support::log_line;
using test_support::take_log_lines;
namespace machine = virtual_gpu::machine;

constexpr const char* tag = "vexa_gpu_data_source";
using log_lines = std::vector<log_line>;
const log_lines setup_failed = {{6, tag, "Failed to initialize HWC reader\n"}};

std::atomic<int> readers = 0;  // that there are
std::atomic<int> samples = 0;
std::atomic<int> loops_ended = 0;

class counted_reader : public test_support::forwarding_reader {
public:
    explicit counted_reader(std::unique_ptr<hwc_reader> inner) : forwarding_reader(std::move(inner)) {
        ++readers;
    }
    ~counted_reader() override { --readers; }
    void process_buffers_until_interrupted(counterfeed::sample_callback callback) override {
        forwarding_reader::process_buffers_until_interrupted([&callback](auto... arguments) {
            callback(arguments...);
            ++samples;
        });
        ++loops_ended;
    }
};

reader_factory make_factory(const virtual_gpu::seam_reader_options& options) {
    return [options] { return std::make_unique<counted_reader>(test_support::formula_reader(options)); };
}

virtual_gpu::seam_reader_options quick() {
    return test_support::every(1'000'000);
}

bool wait_for(const std::atomic<int>& count, int value) {
    return test_support::eventually([&] { return count >= value; });
}

// A machine with one GPU.
void set_gpu(const virtual_gpu::gpu_description& gpu) {
    machine::reset();
    machine::add_node(0, gpu);
}

class DataSource : public testing::Test {
protected:
    DataSource() {
        set_gpu({});
        take_log_lines();
        samples = 0;
        loops_ended = 0;
    }
    ~DataSource() override {
        EXPECT_EQ(readers, 0);
        EXPECT_EQ(take_log_lines(), log_lines());  // beside what a test has taken
        machine::reset();
    }

    const reader_factory factory_ = make_factory(quick());
};

TEST_F(DataSource, PeriodOfTheConfig) {
    const struct {
        std::string config;
        std::int64_t period;
    } cases[] = {
        {"", 10000000},
        {number(1, 0), 1000000},
        {number(1, 999999), 1000000},
        {number(1, 1000000), 1000000},
        {number(1, 1234567), 1234567},
        {number(1, 1000000000), 1000000000},
        {number(1, 1000000001), 1000000000},
        {number(1, 0x7fffffffffffffff), 1000000000},
        {number(1, 0x8000000000000000), 1000000},
        {number(1, 0xffffffffffffffff), 1000000},
        {number(1, 5000000) + number(1, 6000000), 6000000},
        {number(3, 1) + number(4, 1), 10000000},  // instrumented sampling and a fixed clock change nothing
        {real(1, 2000000), 10000000},             // not of the field's wire type
    };
    for (const auto& c : cases) {
        data_source source;
        EXPECT_EQ(source.sampling_period, 10000000);
        source.set_up(c.config, &factory_);
        EXPECT_EQ(source.sampling_period, c.period);
        EXPECT_TRUE(source.reader);
    }
}

TEST_F(DataSource, CountersOfTheConfig) {
    data_source source;
    source.set_up(number(2, 7) + number(2, 3) + number(2, 0x1'0000'0005) + number(2, 7), &factory_);
    EXPECT_EQ(source.counter_ids, (std::set<std::uint32_t>{3, 5, 7}));
    // A second setup starts afresh, and takes the first one's reader away.
    source.set_up(number(2, 9), &factory_);
    EXPECT_EQ(source.counter_ids, (std::set<std::uint32_t>{9}));
    EXPECT_EQ(readers, 1);
    source.set_up(text(2, "not a number"), &factory_);
    EXPECT_TRUE(source.counter_ids.empty());
    // Where it fails, the session goes on with the reader that is there.
    machine::fail(virtual_gpu::request_kind::reader_setup, EIO);
    source.set_up(number(2, 5), nullptr);
    EXPECT_EQ(take_log_lines(), setup_failed);
    source.begin();
    EXPECT_TRUE(wait_for(samples, 3));
    source.stop();
}

TEST_F(DataSource, SetupOrStartThatFails) {
    virtual_gpu::seam_reader_options uninitialized, immobile;
    uninitialized.initialized = false;
    immobile.begin_fails = true;
    const reader_factory factories[] = {make_factory(uninitialized), [] { return nullptr; },
                                        make_factory(immobile)};
    const log_lines not_set_up = {{6, tag, "Couldn't start because OnSetup failed"}};
    const log_lines begin_failed = {{6, tag, "Couldn't start because periodic sampling setup failed"}};
    const struct {
        const reader_factory* factory;
        std::optional<virtual_gpu::request_kind>
            refused;  // of the driver, whose reader takes the factory's place
        log_lines of_setup, of_start;
    } cases[] = {{nullptr, virtual_gpu::request_kind::reader_setup, setup_failed, not_set_up},
                 {&factories[0], {}, setup_failed, not_set_up},
                 {&factories[1], virtual_gpu::request_kind::reader_setup, setup_failed, not_set_up},
                 {&factories[2], {}, {}, begin_failed},
                 {nullptr, virtual_gpu::request_kind::set_interval, {}, begin_failed}};
    for (const auto& c : cases) {
        if (c.refused) {
            machine::fail(*c.refused, EIO);
        }
        data_source source;
        source.set_up(number(2, 7), c.factory);
        EXPECT_EQ(take_log_lines(), c.of_setup);
        EXPECT_EQ(source.reader != nullptr, c.of_setup.empty());
        source.begin();
        EXPECT_EQ(take_log_lines(), c.of_start);
        EXPECT_TRUE(!source.reader && readers == 0 && !source.poll_thread.joinable());
        source.stop();
    }
}

// The thread ends by itself at each of the places where it can. The session stays as it is until it is
// stopped.
TEST_F(DataSource, ThreadThatEndsEarly) {
    virtual_gpu::seam_reader_options short_lived = quick();
    short_lived.stop_after = 2;
    const reader_factory factory = make_factory(short_lived);
    virtual_gpu::gpu_description unknown_gpu;
    unknown_gpu.product_id = 0x7004;
    for (const bool is_detected : {true, false}) {
        data_source source;
        source.set_up(number(2, 5), &factory);
        if (is_detected) {
            source.begin();
            EXPECT_TRUE(wait_for(loops_ended, 1));
        } else {
            set_gpu(unknown_gpu);
            source.begin();
            ::usleep(20000);
        }
        EXPECT_TRUE(source.reader && source.poll_thread.joinable());
        source.stop();
        EXPECT_FALSE(source.reader || source.poll_thread.joinable());
    }
    EXPECT_TRUE(loops_ended == 1 && samples == 2);
}

TEST_F(DataSource, StopDoesNotWaitForThePeriod) {
    const reader_factory factory = make_factory(test_support::every(1'000'000'000));
    // The quicker of two with each reader, for a busy machine may stand still in between.
    std::chrono::nanoseconds quickest[] = {std::chrono::seconds(1), std::chrono::seconds(1)};
    for (const useconds_t delay : {0U, 20000U, 1U, 20001U}) {
        data_source source;
        source.set_up(number(1, 1'000'000'000), delay % 2 == 0 ? &factory : nullptr);
        source.begin();
        ::usleep(delay);
        const auto begin = std::chrono::steady_clock::now();
        source.stop();
        quickest[delay % 2] = std::min(quickest[delay % 2], std::chrono::steady_clock::now() - begin);
        EXPECT_FALSE(source.reader);
    }
    EXPECT_LT(std::max(quickest[0], quickest[1]), std::chrono::milliseconds(500));
}

// Stopped at a thousand moments of a sample's life, which lasts a millisecond.
TEST_F(DataSource, ManySessionsLeaveNothingBehind) {
    const reader_factory none = [] { return nullptr; };
    std::ptrdiff_t driver_samples = 0;
    held_resources before{};
    constexpr std::ptrdiff_t enough_samples = 500;
    // More sessions where a busy machine gives the driver less time in each.
    for (useconds_t session = 0; session < 1010 || (driver_samples < enough_samples && session < 20'000);
         ++session) {
        if (session == 10) {
            before = held_resources::now();
        }
        data_source source;
        source.set_up(number(1, 1000000) + number(2, 5), session % 2 == 0 ? &none : nullptr);
        source.begin();
        ::usleep(session * 37 % 3000);
        source.stop();
        ASSERT_FALSE(source.reader || source.poll_thread.joinable());
        for (const virtual_gpu::request_record& request : machine::requests()) {
            driver_samples += request.kind == virtual_gpu::request_kind::put_buffer ? 1 : 0;
        }
        machine::clear_requests();
    }
    EXPECT_GE(driver_samples, enough_samples);
    EXPECT_EQ(machine::open_now(), virtual_gpu::open_counts{});
    EXPECT_TRUE(test_support::nothing_left(before));
}

// The words for units are the names that the protocol has for their numbers.
TEST(Units, HaveTheProtocolsNumbersAndNames) {
    using protocol = perfetto::protos::pbzero::GpuCounterDescriptor;
#define UNIT(name) \
    { static_cast<std::uint32_t>(protocol::name), #name }
    const std::pair<std::uint32_t, const char*> units[] = {
        UNIT(BIT),         UNIT(KILOBIT),   UNIT(MEGABIT),   UNIT(GIGABIT),    UNIT(TERABIT),
        UNIT(PETABIT),     UNIT(BYTE),      UNIT(KILOBYTE),  UNIT(MEGABYTE),   UNIT(GIGABYTE),
        UNIT(TERABYTE),    UNIT(PETABYTE),  UNIT(HERTZ),     UNIT(KILOHERTZ),  UNIT(MEGAHERTZ),
        UNIT(GIGAHERTZ),   UNIT(TERAHERTZ), UNIT(PETAHERTZ), UNIT(NANOSECOND), UNIT(MICROSECOND),
        UNIT(MILLISECOND), UNIT(SECOND),    UNIT(MINUTE),    UNIT(HOUR),       UNIT(VERTEX),
        UNIT(PIXEL),       UNIT(TRIANGLE),  UNIT(MILLIWATT), UNIT(WATT),       UNIT(KILOWATT),
        UNIT(JOULE),       UNIT(VOLT),      UNIT(AMPERE),    UNIT(CELSIUS),    UNIT(FAHRENHEIT),
        UNIT(KELVIN),      UNIT(PERCENT),   UNIT(PRIMITIVE), UNIT(FRAGMENT),   UNIT(INSTRUCTION)};
#undef UNIT
    for (const auto& [number, name] : units) {
        EXPECT_STRCASEEQ(hwc::unit_word(number), name);
    }
    EXPECT_EQ(hwc::unit_word(41), nullptr);
}

using DataSourceDeathTest = DataSource;

TEST_F(DataSourceDeathTest, MistakesThatEndTheProcess) {
    const reader_factory empty;
    const auto running = [this] {
        auto source = std::make_unique<data_source>();
        source->set_up("", &factory_);
        source->begin();
        return source;
    };
    EXPECT_EXIT(data_source().set_up("", &empty), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(running()->begin(), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(running().reset(), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(
        {
            threads_fail = true;
            running();
        },
        testing::KilledBySignal(SIGABRT), "thread constructor failed");
}

}  // namespace
