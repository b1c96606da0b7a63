// One sample on its way into a trace: the data source's callback with all rows of the largest table, beside a
// data source that writes the same packet with the values in hand. Both write to sessions of the SDK's own
// service, which runs in this process. All of it happens on the sampling thread.
//
// Also counts what our own code takes from the heap and how often it locks. Its archives are linked in a form
// in which those calls come to the counting functions below; the SDK's own calls do not.
#include <benchmark/benchmark.h>
#include <perfetto.h>
#include <pthread.h>
#include <semaphore.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <span>
#include <thread>
#include <utility>
#include <vector>

#include "benchmarks/side_by_side.h"
#include "counterfeed/src/sample_packet.h"
#include "counterfeed/src/vexa_gpu_data_source.h"
#include "hwc/hwc_names.h"
#include "virtual_gpu/machine.h"
#include "virtual_gpu/sample_source.h"

namespace {

thread_local std::uint64_t allocations = 0;
thread_local std::uint64_t locks = 0;

}  // namespace

extern "C" {
void* counted_malloc(std::size_t size) {
    ++allocations;
    return std::malloc(size);
}
void* counted_calloc(std::size_t count, std::size_t size) {
    ++allocations;
    return std::calloc(count, size);
}
void* counted_realloc(void* address, std::size_t size) {
    ++allocations;
    return std::realloc(address, size);
}
void* counted_new(std::size_t size) {
    ++allocations;
    return ::operator new(size);
}
void* counted_new_array(std::size_t size) {
    ++allocations;
    return ::operator new[](size);
}
int counted_mutex_lock(pthread_mutex_t* mutex) {
    ++locks;
    return pthread_mutex_lock(mutex);
}
int counted_spin_lock(pthread_spinlock_t* lock) {
    ++locks;
    return pthread_spin_lock(lock);
}
int counted_sem_wait(sem_t* semaphore) {
    ++locks;
    return sem_wait(semaphore);
}
}

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)
using benchmarks::side_by_side;
namespace pbzero = perfetto::protos::pbzero;

constexpr std::uint64_t period_ns = 1'000'000;
// A turn writes a few packets, which fit into the memory shared with the service, and then waits for the
// service to empty it. Otherwise one would measure how fast packets are thrown away.
constexpr int packets_per_turn = 8;
constexpr auto time_to_empty = std::chrono::milliseconds(2);
constexpr int turns = 400;

const hwc::counter_table& rows = hwc::counter_tables[8];

// The same packets with values in hand, and with the whole packet in hand.
class control_source : public perfetto::DataSource<control_source> {
public:
    static void append(std::span<const std::uint8_t> packet) {
        Trace([packet](TraceContext context) {
            context.NewTracePacket()->AppendRawProtoBytes(packet.data(), packet.size());
        });
    }
    static void write(std::uint64_t timestamp, const std::vector<std::pair<std::uint32_t, double>>& values) {
        Trace([&](TraceContext context) {
            const auto packet = context.NewTracePacket();
            packet->set_timestamp_clock_id(pbzero::BUILTIN_CLOCK_MONOTONIC_RAW);
            packet->set_timestamp(timestamp);
            auto* event = packet->set_gpu_counter_event();
            for (const auto& [id, value] : values) {
                auto* counter = event->add_counters();
                counter->set_counter_id(id);
                counter->set_double_value(value);
            }
        });
    }
};

struct sampler {
    const counterfeed::sample_callback& callback;
    std::vector<std::uint32_t> words;
    std::vector<std::pair<std::uint32_t, double>> values;
    counterfeed::sample_packet packet;
    std::uint64_t number = 0;

    // Each does a turn's work and returns the seconds that the packets took.
    double ours(int packets) {
        return timed(packets, [this](std::uint64_t timestamp) {
            callback(timestamp, period_ns, virtual_gpu::formula_cycles(1), words.data());
        });
    }
    // What the callback comes down to in the end: a packet of the same size, as bytes.
    double bytes_alone(int packets) {
        return timed(packets,
                     [this](std::uint64_t timestamp) { control_source::append(packet.at(timestamp)); });
    }
    double theirs(int packets) {
        return timed(packets, [this](std::uint64_t timestamp) { control_source::write(timestamp, values); });
    }

    template <typename Write>
    double timed(int packets, Write write) {
        std::this_thread::sleep_for(time_to_empty);
        const double begin = benchmarks::thread_time();
        for (int i = 0; i < packets; ++i) {
            write(++number * period_ns);
        }
        return benchmarks::thread_time() - begin;
    }
};

void sample(benchmark::State& state, sampler* s) {
    side_by_side(
        state, packets_per_turn, [&] { return s->ours(packets_per_turn); },
        [&] { return s->theirs(packets_per_turn); });
}

void bytes_alone(benchmark::State& state, sampler* s) {
    side_by_side(
        state, packets_per_turn, [&] { return s->bytes_alone(packets_per_turn); },
        [&] { return s->theirs(packets_per_turn); });
}

// How often our own code did something for one packet.
void own_share(benchmark::State& state, sampler* s, const std::uint64_t* counter) {
    for (auto _ : state) {
        const std::uint64_t before = *counter;
        for (int i = 0; i < turns; ++i) {
            s->ours(packets_per_turn);
        }
        state.counters["ours"] = static_cast<double>(*counter - before) / (turns * packets_per_turn);
        state.SetIterationTime(1.0);
    }
}

// Runs the benchmarks where the samples come from, in place of waiting for samples.
class benchmark_reader final : public counterfeed::hwc_reader {
public:
    explicit benchmark_reader(std::promise<void>& done) : done_(done) {}
    bool is_initialized() const override { return true; }
    std::uint32_t get_hwver() const override { return 5; }
    bool begin_sampling_periodic() override { return true; }
    void interrupt() override {}

    void process_buffers_until_interrupted(counterfeed::sample_callback callback) override {
        std::vector<std::uint32_t> ids;
        for (const hwc::vexa_counter_descriptor& row : rows) {
            ids.push_back(row.id);
        }
        sampler s{.callback = callback, .words = {}, .values = {}, .packet = counterfeed::sample_packet(ids)};
        s.words.resize(virtual_gpu::sample_layout({}).word_count());
        virtual_gpu::formula_source().take({.number = 1, .begin = 0, .end = period_ns}, s.words);
        for (const hwc::vexa_counter_descriptor& row : rows) {
            s.values.emplace_back(row.id, row.id * 0.5);
        }
        benchmark::RegisterBenchmark("sample_callback", sample, &s)->UseManualTime()->Iterations(turns);
        benchmark::RegisterBenchmark("bytes_alone", bytes_alone, &s)->UseManualTime()->Iterations(turns);
        benchmark::RegisterBenchmark("allocations_per_sample", own_share, &s, &allocations)
            ->UseManualTime()
            ->Iterations(1);
        benchmark::RegisterBenchmark("locks_per_sample", own_share, &s, &locks)
            ->UseManualTime()
            ->Iterations(1);
        if (allocations == 0) {
            std::fputs("sample_callback: allocations are not counted\n", stderr);
            std::exit(1);
        }
        benchmark::RunSpecifiedBenchmarks();
        done_.set_value();
    }

private:
    std::promise<void>& done_;
};

}  // namespace

PERFETTO_DECLARE_DATA_SOURCE_STATIC_MEMBERS(control_source);
PERFETTO_DEFINE_DATA_SOURCE_STATIC_MEMBERS(control_source);

int main(int argument_count, char** arguments) {
    benchmark::Initialize(&argument_count, arguments);
    virtual_gpu::machine::add_node(0, {});

    perfetto::TracingInitArgs init;
    init.backends = perfetto::kInProcessBackend;
    perfetto::Tracing::Initialize(init);
    perfetto::DataSourceDescriptor descriptor;
    descriptor.set_name("control");
    if (!counterfeed::register_vexa_gpu_data_source() || !control_source::Register(descriptor)) {
        std::fputs("sample_callback: a data source could not be registered\n", stderr);
        return 1;
    }

    std::promise<void> done;
    const counterfeed::reader_factory factory = [&done] { return std::make_unique<benchmark_reader>(done); };
    protozero::HeapBuffered<pbzero::GpuCounterConfig> counters;
    counters->set_counter_period_ns(period_ns);
    for (const hwc::vexa_counter_descriptor& row : rows) {
        counters->add_counter_ids(row.id);
    }
    perfetto::TraceConfig config;
    config.add_buffers()->set_size_kb(65536);
    config.add_data_sources()->mutable_config()->set_name("control");
    auto* const gpu = config.add_data_sources()->mutable_config();
    gpu->set_name("gpu.counters");
    gpu->set_gpu_counter_config_raw(counters.SerializeAsString());
    gpu->mutable_for_testing()->mutable_dummy_fields()->set_field_uint64(
        reinterpret_cast<std::uintptr_t>(&factory));

    const auto session = perfetto::Tracing::NewTrace(perfetto::kInProcessBackend);
    session->Setup(config);
    session->StartBlocking();
    done.get_future().wait();
    session->StopBlocking();
}
