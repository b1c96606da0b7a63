// Whole trace sessions through the real tracing service, with the product, the virtual GPU and the test in
// one process.

#include <errno.h>
#include <gtest/gtest.h>
#include <perfetto.h>
#include <stdlib.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "counterfeed/src/hwc_reader.h"
#include "counterfeed/src/start.h"
#include "hwc/hwc_names.h"
#include "hwc/product.h"
#include "tests/end_to_end/formula_values.h"
#include "tests/support/platform_log.h"
#include "tests/support/readers.h"
#include "tests/support/tracing_service.h"
#include "tests/support/wire.h"
#include "virtual_gpu/machine.h"
#include "workstation/report/trace_file.h"

namespace {

using namespace qel::vexa;           // NOLINT(google-build-using-namespace)
using namespace test_support::wire;  // NOLINT(google-build-using-namespace)
using counterfeed::reader_factory;
using test_support::eventually;
using test_support::tracing_service;
namespace machine = virtual_gpu::machine;

// A service and, in this process, the product as its producer: started once for all tests, as the SDK wants
// it.
const tracing_service& service() {
    static const tracing_service* const running = [] {
        auto* const result = new tracing_service;
        ::setenv("PERFETTO_PRODUCER_SOCK_NAME", result->folder.file("producer").c_str(), 1);
        machine::add_node(0, {});
        std::thread(start).detach();  // it parks
        EXPECT_TRUE(
            eventually([result] { return result->query().find("gpu.counters") != std::string::npos; }));
        return result;
    }();
    return *running;
}

// The test's thread and the product's meet only in other processes, which no thread sanitizer sees. This lock
// stands for that: it is held when a test arranges something, when a reader is made and when the session has
// done with it.
std::mutex meeting;
reader_factory test_factory;

std::atomic<unsigned> delivered;  // samples of the session in hand

class met_reader : public test_support::forwarding_reader {
public:
    using forwarding_reader::forwarding_reader;
    ~met_reader() override { const std::lock_guard held(meeting); }
    void process_buffers_until_interrupted(counterfeed::sample_callback callback) override {
        forwarding_reader::process_buffers_until_interrupted([&callback](auto... arguments) {
            callback(arguments...);
            ++delivered;
        });
    }
};

// The factory that every config names: it asks the one of the test in hand.
const reader_factory published_factory = [] {
    const std::lock_guard held(meeting);
    return std::make_unique<met_reader>(test_factory());
};

class Sessions : public testing::Test {
protected:
    static void SetUpTestSuite() { service(); }
    static void TearDownTestSuite() {
        delete &service();
        const std::lock_guard held(meeting);
    }
};

// The trace of a session that has had so many samples.
std::string record(const std::vector<std::uint32_t>& ids, const reader_factory& factory, unsigned samples) {
    {
        const std::lock_guard held(meeting);
        test_factory = factory;
        delivered = 0;
    }
    return service().record_until(
        test_support::session_config(
            ids, 0, "",
            "for_testing { dummy_fields { field_uint64: " +
                std::to_string(reinterpret_cast<std::uintptr_t>(&published_factory)) + " } }") +
            test_support::with_room_for(test_support::read_file("/proc/self/cmdline").c_str()),
        [samples](const std::string& /*file*/) { return delivered >= samples; });
}

// Delivers given samples at once, and then waits for the interrupt.
struct scripted_sample {
    std::uint64_t timestamp, delta, cycles;
    std::vector<std::uint32_t> words;
};
class scripted_reader : public test_support::forwarding_reader {
public:
    explicit scripted_reader(const std::vector<scripted_sample>& samples)
        : forwarding_reader(test_support::formula_reader(test_support::every(1'000'000'000'000))),
          samples_(samples) {}
    void process_buffers_until_interrupted(counterfeed::sample_callback callback) override {
        for (const scripted_sample& sample : samples_) {
            callback(sample.timestamp, sample.delta, sample.cycles, sample.words.data());
        }
        forwarding_reader::process_buffers_until_interrupted(std::move(callback));
    }

private:
    const std::vector<scripted_sample> samples_;
};

// A message with each length in as few bytes as it takes, and without what the SDK puts into a sequence's
// first packet. The SDK writes a nested message before it knows its length; how many bytes it leaves for that
// is for each release to choose, and so is that field.
std::string in_its_shortest_form(const std::string& message) {
    constexpr std::uint32_t first_packet_on_sequence = 87;
    std::string result;
    protozero::ProtoDecoder fields(message.data(), message.size());
    std::size_t at = 0;
    for (auto field = fields.ReadField(); field.valid(); field = fields.ReadField()) {
        const std::size_t size = fields.read_offset() - at;
        if (field.type() == protozero::proto_utils::ProtoWireType::kLengthDelimited) {
            const std::string content = field.as_std_string();
            const bool is_nested = text(field.id(), content).size() < size;
            result += text(field.id(), is_nested ? in_its_shortest_form(content) : content);
        } else if (field.id() != first_packet_on_sequence) {
            result.append(message, at, size);
        }
        at += size;
    }
    return result;
}

// The packets with GPU counters, as their producer wrote them: the service puts fields of its own behind
// these.
std::vector<std::string> counter_packets(const std::string& trace) {
    std::vector<std::string> result;
    protozero::ProtoDecoder file(trace.data(), trace.size());
    for (auto field = file.ReadField(); field.valid(); field = file.ReadField()) {
        const protozero::ConstBytes packet = field.as_bytes();
        protozero::ProtoDecoder fields(packet);
        for (auto inner = fields.ReadField(); inner.valid(); inner = fields.ReadField()) {
            if (inner.id() == perfetto::protos::pbzero::TracePacket::kGpuCounterEventFieldNumber) {
                const auto* const end = inner.as_bytes().data + inner.as_bytes().size;
                result.emplace_back(packet.data, end);
            }
        }
    }
    return result;
}

// A row as the descriptors have it.
std::string row_bytes(const hwc::vexa_counter_descriptor& row) {
    return number(1, row.id) + text(2, row.name) + text(3, row.description) +
           number(9, row.select_by_default ? 1 : 0) + number(7, row.numerator_units) +
           number(8, row.denominator_units) + (row.numerator_units == 37 ? real(6, 100.0) : "");
}

TEST_F(Sessions, OfferedDescriptor) {
    perfetto::protos::gen::TracingServiceState state;
    ASSERT_TRUE(state.ParseFromString(service().query()));
    ASSERT_EQ(state.data_sources().size(), 1U);
    const auto& source = state.data_sources()[0].ds_descriptor();
    EXPECT_EQ(source.name(), "gpu.counters");

    std::string expected("\x18\xC0\x84\x3D\x20\x80\x94\xEB\xDC\x03\x28\x00", 12);
    for (const hwc::vexa_counter_descriptor& row : hwc::counter_tables[7]) {  // product 9
        expected += text(1, row_bytes(row));
    }
    EXPECT_EQ(in_its_shortest_form(source.gpu_counter_descriptor_raw()), expected);
    // One of them spelled out, so that a wrong encoder above can't hide one below.
    const std::string triangles = text(2, "Triangle primitives");
    const std::size_t at = expected.find("\x08\x46" + triangles);
    ASSERT_NE(at, std::string::npos);
    EXPECT_NE(expected.find(std::string("\x48\x00\x38\x26\x40\x00\x0A", 7), at), std::string::npos);
}

TEST_F(Sessions, PacketsByteByByte) {
    std::vector<std::uint32_t> words(std::size_t{64} * 16);
    words[69] = 0xffffffff;
    const reader_factory factory = [words]() {
        return std::make_unique<scripted_reader>(
            std::vector<scripted_sample>{{0x1122334455, 7, 3, words}, {0xffffffffffffffff, 0, 0, words}});
    };
    // Ids in no order, one twice and one unknown.
    auto packets = counter_packets(record({65535, 69, 999999, 69}, factory, 2));
    ASSERT_FALSE(packets.empty());
    packets[0] = in_its_shortest_form(packets[0]);
    const hwc::counter_table& table = hwc::counter_tables[7];
    const auto described = [](const std::string& specs) {
        return std::string("\x40\x00", 2) + text(52, text(1, specs));
    };
    const std::string one = "\xD0\x03\x05\x40\xD5\x88\xCD\x91\x92\x02\xA2\x03";
    const std::string other = "\xD0\x03\x05\x40\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x01\xA2\x03";
    const std::string largest_word("\x12\x0B\x08\x45\x19\x00\x00\xE0\xFF\xFF\xFF\xEF\x41", 13);
    const std::string cycles("\x12\x0D\x08\xFF\xFF\x03\x19", 7);
    EXPECT_EQ(packets,
              (std::vector<std::string>{
                  described(text(1, row_bytes(*table.find(69))) + text(1, row_bytes(*table.find(65535)))),
                  one + "\x1C" + largest_word + cycles + std::string("\x00\x00\x00\x00\x00\x00\x08\x40", 8),
                  other + "\x1C" + largest_word + cycles + std::string(8, '\0')}));
    EXPECT_EQ(test_support::take_log_lines(),
              (std::vector<test_support::log_line>{
                  {5, "vexa_gpu_data_source", "Unexpected counter id 999999 specified, ignoring\n"}}));
    // No counters are a session too.
    packets = counter_packets(record({}, factory, 2));
    ASSERT_FALSE(packets.empty());
    packets[0] = in_its_shortest_form(packets[0]);
    EXPECT_EQ(packets, (std::vector<std::string>{described(""), one + '\0', other + '\0'}));
}

// Every product with every row of its table: the values in the trace are those of the evaluator on the same
// words, within the limits that a session keeps.
TEST_F(Sessions, AllRowsOfAllProducts) {
    const std::uint32_t gpu_ids[] = {0x6000, 0x6001, 0x7000, 0x7001, 0x7002, 0x7003, 0x9000, 0x9001,
                                     0x9002, 0x9003, 0x9004, 0xa002, 0xa003, 0xa004, 0xa007};
    unsigned products = 0;
    for (std::size_t i = 0; i < std::size(gpu_ids); ++i) {
        virtual_gpu::gpu_description gpu;
        gpu.product_id = gpu_ids[i] | 0x120;  // bits that do not count
        gpu.core_group_masks =
            i % 3 == 0 ? std::vector<std::uint64_t>{0b1011} : std::vector<std::uint64_t>{0x3, 0xf0};
        gpu.l2_slices = static_cast<std::uint8_t>(i % 9);
        gpu.bus_width_bytes = 8U << i % 3;
        machine::remove_node(0);
        machine::add_node(0, gpu);

        std::error_code ec;
        const hwc::product product("/dev/vexa0", ec);
        ASSERT_FALSE(ec);
        products |= 1U << static_cast<unsigned>(product.gpu_info::product);
        virtual_gpu::seam_reader_options options;
        options.free_running = true;
        options.stop_after = 20;
        const reader_factory factory = [gpu, options] { return test_support::formula_reader(options, gpu); };
        const auto ids = test_support::all_ids(product);
        const auto sequences = report::read_counters(record(ids, factory, 20));
        ASSERT_TRUE(sequences && sequences->size() == 1);
        EXPECT_EQ(sequences->begin()->second.samples.size(), 20U);
        test_support::expect_formula_values(sequences->begin()->second, ids, product, gpu, options.period_ns);
    }
    EXPECT_EQ(products, 0x3fffU);
    machine::remove_node(0);
    machine::add_node(0, {});
}

}  // namespace
