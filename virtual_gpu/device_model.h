// One GPU as its kernel driver shows it: what the driver reports of the hardware, and how it answers the
// requests of a process that has opened the device node.
//
// Everything here stands on the far side of the kernel boundary. The numbers of the interface are written
// down anew on purpose and not taken from the product, so that a wrong number in the product meets a right
// one here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace qel::vexa::virtual_gpu {

struct interface_version {
    std::uint16_t major;
    std::uint16_t minor;
};

class sample_source;
struct gpu_description;

// Where the words of a GPU's samples come from.
enum class source_kind : std::uint8_t {
    formula,   // every value is known beforehand: sample_source.h
    workload,  // an imagined scene: workload.h
};

// Makes the source of one counter reader. Called when the reader is set up. Neither this nor the source may
// open, close or map files, or call the machine.
using source_factory = std::function<std::unique_ptr<sample_source>(const gpu_description&)>;

// Bits of the counter readers' features: which cycle counts a sample comes with.
inline constexpr std::uint32_t feature_top_cycles = 1;
inline constexpr std::uint32_t feature_shader_cycles = 2;

struct gpu_description {
    std::uint32_t product_id = 0x9002;  // the low 16 bits, masked with 0xf00f, decide the product
    std::uint16_t version_status = 0;
    std::uint16_t major_revision = 0;
    std::uint16_t minor_revision = 0;
    // Up to 16 groups; bit k stands for the core with index k.
    std::vector<std::uint64_t> core_group_masks = {0x3ff};
    // How many groups the driver reports, when not as many as there are masks.
    std::optional<std::uint32_t> core_group_count = std::nullopt;
    std::uint8_t l2_slices = 4;
    std::uint32_t bus_width_bytes = 16;  // of the external bus; a power of two
    std::uint64_t clock_hz = 800'000'000;
    interface_version kernel_version = {11, 33};
    // Given out in place of the blob that describes the above.
    std::optional<std::vector<std::byte>> raw_properties = std::nullopt;

    // The counter readers.
    std::uint32_t reader_api_version = 1;
    std::uint32_t reader_features = feature_top_cycles | feature_shader_cycles;
    // Knows the legacy API version request alone, and the short metadata alone.
    bool is_legacy = false;
    std::uint32_t counter_hardware_version = 5;
    source_kind source = source_kind::formula;
    source_factory own_source = {};  // in place of the two
    // False: the cycle counts that the features promise are 0 in every sample.
    bool has_cycles = true;
    // False: periodic samples wait for a free buffer, for tests that want every one also on a busy machine.
    bool loses_samples = true;

    // All cores of all groups.
    std::uint64_t core_mask() const;
};

// The driver's description of a GPU: packed records of a header and a value of 1, 2, 4 or 8 bytes, all
// little-endian.
std::vector<std::byte> property_blob(const gpu_description& gpu);

// What a process can ask of a GPU, by ioctl unless told otherwise. Each can be logged, and made to fail, by
// itself.
enum class request_kind : std::uint8_t {
    // Of the path of a device node, by the calls of these names.
    open,
    stat,
    // Of an open device node.
    fstat,  // the call
    version_check,
    version_check_second,  // the same request under its other number
    set_flags,
    get_properties,
    reader_setup,
    map_tracking_page,  // a call of mmap, also one with wrong arguments
    // Of a counter reader.
    get_hardware_version,
    get_sample_size,
    dump,
    clear,
    get_buffer,  // with short or long metadata
    put_buffer,
    set_interval,
    get_api_version,                // the legacy form
    get_api_version_with_features,  // the other
    map_ring,                       // a call of mmap, also one with wrong arguments
    poll,                           // a call of poll, with the reader among its descriptors
    // Of either, with a number that it does not know.
    unknown,
};
inline constexpr std::size_t request_kind_count = static_cast<std::size_t>(request_kind::unknown) + 1;

// The kind behind the number of an ioctl on a device node.
request_kind kind_of(std::uint32_t number);

// How many bytes the caller's record has, as the number of the ioctl says.
std::size_t record_size(std::uint32_t number);

// One opened device node. A version check must come first, then the flags, once; then the rest is open. Each
// open node goes through these steps for itself. Not for use by two threads at a time.
class device_context {
public:
    explicit device_context(std::shared_ptr<const gpu_description> gpu);

    // Answers an ioctl: what the driver returns, or a negative error number. The argument is the caller's
    // record, in the caller's memory: EFAULT when null. A reader's setup is only examined, and 0 when there
    // can be such a reader.
    int answer(std::uint32_t number, void* argument);

    // The rest of the requests is open.
    bool is_ready() const { return flags_set_; }
    const std::shared_ptr<const gpu_description>& gpu() const { return gpu_; }

private:
    int check_version(void* argument);
    int set_flags();
    int get_properties(void* argument) const;
    static int check_reader_setup(const void* argument);

    std::shared_ptr<const gpu_description> gpu_;
    std::vector<std::byte> properties_;
    bool version_checked_ = false;
    bool flags_set_ = false;
};

}  // namespace qel::vexa::virtual_gpu
