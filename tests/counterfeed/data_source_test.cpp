// The data source driven by hand, without a tracing service: every step that can fail, and what is left
// behind.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <random>

#include "counterfeed/src/vexa_gpu_data_source.h"
#include "tests/support/platform_log.h"
#include "tests/support/process.h"
#include "tests/support/resources.h"
#include "tests/support/wire.h"
#include "virtual_gpu/machine.h"
#include "virtual_gpu/sample_source.h"
#include "virtual_gpu/seam_reader.h"

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
using test_support::held_resources;
using test_support::log_line;
using test_support::take_log_lines;
namespace machine = virtual_gpu::machine;

// The data source with its state laid open.
class data_source : public counterfeed::vexa_gpu_data_source {
public:
    using vexa_gpu_data_source::counter_ids;
    using vexa_gpu_data_source::poll_thread;
    using vexa_gpu_data_source::reader;
    using vexa_gpu_data_source::sampling_period;

    void set_up(const std::string& counter_config, const reader_factory* factory) {
        perfetto::DataSourceConfig config;
        config.set_gpu_counter_config_raw(counter_config);
        if (factory != nullptr) {
            config.mutable_for_testing()->mutable_dummy_fields()->set_field_uint64(
                reinterpret_cast<std::uintptr_t>(factory));
        }
        SetupArgs arguments;
        arguments.config = &config;
        OnSetup(arguments);
    }
    void begin() { OnStart({}); }
    void stop() {
        struct stop_arguments : StopArgs {
            std::function<void()> HandleStopAsynchronously() const override { return {}; }
        };
        OnStop(stop_arguments());
    }
};

constexpr const char* tag = "vexa_gpu_data_source";
const log_line setup_failed{6, tag, "Failed to initialize HWC reader\n"};
const log_line not_set_up{6, tag, "Couldn't start because OnSetup failed"};
const log_line begin_failed{6, tag, "Couldn't start because periodic sampling setup failed"};

std::atomic<int> readers = 0;

// Counts the readers there are.
class counted_reader : public hwc_reader {
public:
    explicit counted_reader(std::unique_ptr<hwc_reader> inner) : inner_(std::move(inner)) { ++readers; }
    ~counted_reader() override { --readers; }
    bool is_initialized() const override { return inner_->is_initialized(); }
    std::uint32_t get_hwver() const override { return inner_->get_hwver(); }
    bool begin_sampling_periodic() override { return inner_->begin_sampling_periodic(); }
    void process_buffers_until_interrupted(counterfeed::sample_callback callback) override {
        inner_->process_buffers_until_interrupted([&callback, this](auto... arguments) {
            callback(arguments...);
            ++samples;
        });
        ++loops_ended;
    }
    void interrupt() override { inner_->interrupt(); }

    static std::atomic<int> samples;
    static std::atomic<int> loops_ended;

private:
    std::unique_ptr<hwc_reader> inner_;
};
std::atomic<int> counted_reader::samples = 0;
std::atomic<int> counted_reader::loops_ended = 0;

reader_factory make_factory(const virtual_gpu::seam_reader_options& options) {
    return [options] {
        return std::make_unique<counted_reader>(std::make_unique<virtual_gpu::seam_reader>(
            std::make_unique<virtual_gpu::formula_source>(), virtual_gpu::sample_layout({}), options));
    };
}

virtual_gpu::seam_reader_options quick() {
    virtual_gpu::seam_reader_options options;
    options.period_ns = 1'000'000;
    return options;
}

bool wait_for(const std::atomic<int>& count, int value) {
    for (int i = 0; i < 10000 && count < value; ++i) {
        ::usleep(1000);
    }
    return count >= value;
}

class DataSource : public testing::Test {
protected:
    DataSource() {
        machine::reset();
        machine::add_node(0, {});
        take_log_lines();
        counted_reader::samples = 0;
        counted_reader::loops_ended = 0;
    }
    ~DataSource() override {
        EXPECT_EQ(readers, 0);
        machine::reset();
    }

    const reader_factory factory_ = make_factory(quick());
    const std::vector<log_line> silence_;
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
    EXPECT_EQ(take_log_lines(), silence_);
}

TEST_F(DataSource, CountersOfTheConfig) {
    data_source source;
    source.set_up(number(2, 7) + number(2, 3) + number(2, 0x1'0000'0005) + number(2, 7), &factory_);
    EXPECT_EQ(source.counter_ids, (std::set<std::uint32_t>{3, 5, 7}));
    source.set_up(number(2, 9),
                  &factory_);  // a second setup starts afresh, and takes the first one's reader away
    EXPECT_EQ(source.counter_ids, (std::set<std::uint32_t>{9}));
    EXPECT_EQ(readers, 1);
    source.set_up(text(2, "not a number"), &factory_);
    EXPECT_TRUE(source.counter_ids.empty());
}

TEST_F(DataSource, AnyBytesAreAConfig) {
    std::mt19937 random(4);
    for (int round = 0; round < 5000; ++round) {
        std::string config = round % 2 == 0 ? number(1, 2000000) : "";
        for (std::size_t left = random() % 40; left > 0; --left) {
            config += static_cast<char>(random() % 3 == 0 ? random() % 40 : random());
        }
        data_source source;
        source.set_up(config, &factory_);
        ASSERT_GE(source.sampling_period, 1000000);
        ASSERT_LE(source.sampling_period, 1000000000);
        ASSERT_TRUE(source.reader);
    }
}

TEST_F(DataSource, SetupThatFails) {
    virtual_gpu::seam_reader_options broken;
    broken.initialized = false;
    const reader_factory uninitialized = make_factory(broken);
    const reader_factory none = [] { return nullptr; };
    for (const reader_factory* factory :
         {&uninitialized, &none, static_cast<const reader_factory*>(nullptr)}) {
        data_source source;
        source.set_up(number(2, 7), factory);
        EXPECT_EQ(take_log_lines(), (std::vector<log_line>{setup_failed}));
        EXPECT_FALSE(source.reader);
        EXPECT_EQ(readers, 0);
        source.begin();
        EXPECT_EQ(take_log_lines(), (std::vector<log_line>{not_set_up}));
        source.stop();
        EXPECT_EQ(take_log_lines(), silence_);
    }
}

TEST_F(DataSource, ReportsNameTheirPlace) {
    std::vector<std::string> places;
    const logging::callback before = logging::exchange_callback(
        [&places](const stx::source_location& place, logging::priority, logging::tag, std::string_view) {
            places.push_back(place.file + std::string(" ") + place.function);
        });
    data_source source;
    source.set_up("", nullptr);
    source.begin();
    logging::exchange_callback(before);
    EXPECT_EQ(places, (std::vector<std::string>{"counterfeed/src/vexa_gpu_data_source OnSetup",
                                                "counterfeed/src/vexa_gpu_data_source OnStart"}));
}

TEST_F(DataSource, StartThatFails) {
    virtual_gpu::seam_reader_options broken = quick();
    broken.begin_fails = true;
    const reader_factory factory = make_factory(broken);
    data_source source;
    source.set_up("", &factory);
    source.begin();
    EXPECT_EQ(take_log_lines(), (std::vector<log_line>{begin_failed}));
    EXPECT_EQ(readers, 0);
    EXPECT_FALSE(source.poll_thread.joinable());
    source.stop();
    EXPECT_EQ(take_log_lines(), silence_);
}

TEST_F(DataSource, UnknownIdsAreWarnedOfOnce) {
    data_source source;
    source.set_up(number(2, 5) + number(2, 999999) + number(2, 6) + number(2, 999999) + number(2, 0),
                  &factory_);
    source.begin();
    EXPECT_TRUE(wait_for(counted_reader::samples, 3));
    source.stop();
    EXPECT_EQ(take_log_lines(),
              (std::vector<log_line>{{5, tag, "Unexpected counter id 0 specified, ignoring\n"},
                                     {5, tag, "Unexpected counter id 999999 specified, ignoring\n"}}));
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
        if (!is_detected) {
            machine::remove_node(0);
            machine::add_node(0, unknown_gpu);
        }
        source.begin();
        if (is_detected) {
            EXPECT_TRUE(wait_for(counted_reader::loops_ended, 1));
            EXPECT_EQ(counted_reader::samples, 2);
        } else {
            ::usleep(20000);
        }
        EXPECT_TRUE(source.reader);
        EXPECT_TRUE(source.poll_thread.joinable());
        source.stop();
        EXPECT_FALSE(source.reader);
        EXPECT_FALSE(source.poll_thread.joinable());
    }
    EXPECT_EQ(counted_reader::loops_ended, 1);
    EXPECT_EQ(take_log_lines(), silence_);
}

TEST_F(DataSource, StopDoesNotWaitForThePeriod) {
    virtual_gpu::seam_reader_options slow;
    slow.period_ns = 1'000'000'000;
    const reader_factory factory = make_factory(slow);
    for (const useconds_t delay : {0U, 20000U}) {
        data_source source;
        source.set_up("", &factory);
        source.begin();
        ::usleep(delay);
        const auto begin = std::chrono::steady_clock::now();
        source.stop();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
        EXPECT_FALSE(source.reader);
    }
}

TEST_F(DataSource, ManySessionsLeaveNothingBehind) {
    held_resources before{};
    for (int session = 0; session < 110; ++session) {
        if (session == 10) {
            before = held_resources::now();
        }
        data_source source;
        source.set_up(number(2, 5), &factory_);
        source.begin();
        if (session % 4 == 0) {
            EXPECT_TRUE(wait_for(counted_reader::samples, 1));
        }
        source.stop();
    }
    // A thread that is joined may take a moment more to leave the kernel's list.
    EXPECT_TRUE(test_support::eventually([&before] { return held_resources::now().nothing_beyond(before); }))
        << testing::PrintToString(held_resources::now()) << " beyond " << testing::PrintToString(before);
}

TEST_F(DataSource, ThreadCarriesItsNameAsFarAsTheKernelKeepsIt) {
    char name[32] = {};
    const reader_factory factory = [&name]() -> std::unique_ptr<hwc_reader> {
        struct naming_reader : counted_reader {
            using counted_reader::counted_reader;
            void process_buffers_until_interrupted(counterfeed::sample_callback /*callback*/) override {
                pthread_getname_np(pthread_self(), name_to, 32);
            }
            char* name_to = nullptr;
        };
        auto reader = std::make_unique<naming_reader>(std::make_unique<virtual_gpu::seam_reader>(
            std::make_unique<virtual_gpu::formula_source>(), virtual_gpu::sample_layout({}), quick()));
        reader->name_to = name;
        return reader;
    };
    data_source source;
    source.set_up("", &factory);
    source.begin();
    source.poll_thread.join();
    source.poll_thread = std::thread([] {});  // so that there is one to stop
    source.stop();
    EXPECT_STREQ(name, "gpu-hwc-periodi");
}

using DataSourceDeathTest = DataSource;

TEST_F(DataSourceDeathTest, MistakesThatEndTheProcess) {
    const auto running = [this] {
        auto source = std::make_unique<data_source>();
        source->set_up("", &factory_);
        source->begin();
        return source;
    };
    const reader_factory empty;
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

TEST_F(DataSource, RegistrationNeedsAGpuThatIsKnown) {
    virtual_gpu::gpu_description gpu;
    for (const virtual_gpu::request_kind kind :
         {virtual_gpu::request_kind::open, virtual_gpu::request_kind::set_flags,
          virtual_gpu::request_kind::get_properties}) {
        machine::fail(kind, EIO);
        EXPECT_FALSE(counterfeed::register_vexa_gpu_data_source()) << static_cast<int>(kind);
    }
    gpu.product_id = 0x7004;
    machine::reset();
    machine::add_node(0, gpu);
    EXPECT_FALSE(counterfeed::register_vexa_gpu_data_source());
    gpu.raw_properties.emplace(3);
    machine::reset();
    machine::add_node(0, gpu);
    EXPECT_FALSE(counterfeed::register_vexa_gpu_data_source());
    machine::reset();
    machine::add_node(1, {});
    EXPECT_FALSE(counterfeed::register_vexa_gpu_data_source());
    EXPECT_EQ(take_log_lines(), silence_);  // the caller words the failure
}

}  // namespace
