#include "base/vexa_base_hwcnt_reader_backend_vinstr.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <new>

namespace {

constexpr std::uint32_t VALUES_PER_BLOCK = 64;

struct vinstr_state {
    std::int32_t interrupt_fd;  // an eventfd, non-blocking, that wakes get_buffer
    std::int32_t reader_fd;
    const std::byte* ring;  // the mapped sample buffers, one behind the other
    std::uint32_t buffer_count;
    std::uint32_t sample_size;  // bytes of a buffer
    std::uint32_t hwver;
    base_hwcnt_reader_metadata metadata;  // what get_buffer has claimed and put_buffer gives back
    std::atomic<std::uint32_t>
        buffer_held;  // 1 from the start of a get_buffer until the buffer is given back
    std::uint32_t api_version;
    std::uint32_t features;
    std::uint32_t period;  // nanoseconds; 0 for samples on demand
    std::uint32_t num_jm_blocks;
    std::uint32_t num_tiler_blocks;
    std::uint32_t num_l2_blocks;
    std::uint32_t num_shader_blocks;
    std::uint32_t num_blocks;
    std::uint32_t values_per_block;
};

// What init had reached when it failed: the teardown undoes what came before.
enum basep_hwcnt_reader_stage : std::uint32_t {
    BASEP_STAGE_STATE,
    BASEP_STAGE_SETUP,
    BASEP_STAGE_API_VERSION,
    BASEP_STAGE_SAMPLE_SIZE,
    BASEP_STAGE_HWVER,
    BASEP_STAGE_LAYOUT,
    BASEP_STAGE_RING,
    BASEP_STAGE_INTERRUPT,
    BASEP_STAGE_COMPLETE,
};

vinstr_state* to_state(void* state) {
    return static_cast<vinstr_state*>(state);
}

const vinstr_state* to_state(const void* state) {
    return static_cast<const vinstr_state*>(state);
}

// A request whose argument is a record, or a plain number.
template <typename Record>
bool request(const vinstr_state* state, unsigned number, Record* record) {
    return ::ioctl(state->reader_fd, number, record) == 0;
}
bool request(const vinstr_state* state, unsigned number, std::uint32_t value) {
    return ::ioctl(state->reader_fd, number, static_cast<unsigned long>(value)) == 0;
}

// The length of the whole ring in bytes; 0 if the address space can't hold it.
std::size_t ring_length(const vinstr_state* state) {
    const std::uint64_t length = std::uint64_t{state->sample_size} * state->buffer_count;
    return length <= std::numeric_limits<std::size_t>::max() ? static_cast<std::size_t>(length) : 0;
}

void basep_hwcnt_reader_term(vinstr_state* state, std::uint32_t stage) {
    if (stage > BASEP_STAGE_INTERRUPT) {
        ::close(state->interrupt_fd);
    }
    if (stage > BASEP_STAGE_RING) {
        ::munmap(const_cast<std::byte*>(state->ring), ring_length(state));
    }
    if (stage > BASEP_STAGE_SETUP) {
        ::close(state->reader_fd);
    }
    if (stage > BASEP_STAGE_STATE) {
        std::free(state);
    }
}

// Older drivers know the legacy request alone, and tell of no features.
bool query_api_version(vinstr_state* state) {
    base_hwcnt_reader_api_record record{};
    if (!request(state, BASE_REQUEST_GET_API_VERSION_WITH_FEATURES, &record)) {
        record = {};
        if (!request(state, BASE_REQUEST_GET_API_VERSION, &record)) {
            return false;
        }
        record.features = 0;
    }
    state->api_version = record.api_version;
    state->features = record.features;
    return record.api_version == BASE_HWCNT_READER_API_VERSION;
}

// One block of each core position up to the highest core's: a hole in the mask has its block as well. Only
// the first core group counts here.
void lay_out_blocks(vinstr_state* state, const base_gpu_props* props) {
    state->num_jm_blocks = 1;
    state->num_tiler_blocks = 1;
    state->num_l2_blocks = props->num_l2_slices;
    state->num_shader_blocks = static_cast<std::uint32_t>(std::bit_width(props->core_group_mask_0));
    state->num_blocks =
        state->num_jm_blocks + state->num_tiler_blocks + state->num_l2_blocks + state->num_shader_blocks;
    state->values_per_block = VALUES_PER_BLOCK;
}

std::uint32_t block_size(const vinstr_state* state) {
    return state->values_per_block * static_cast<std::uint32_t>(sizeof(std::uint32_t));
}

bool map_ring(vinstr_state* state) {
    const std::size_t length = ring_length(state);
    if (length == 0) {
        return false;
    }
    void* ring = ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE, state->reader_fd, 0);
    if (ring == MAP_FAILED) {
        return false;
    }
    state->ring = static_cast<const std::byte*>(ring);
    return true;
}

bool open_interrupt(vinstr_state* state) {
    state->interrupt_fd = ::eventfd(0, EFD_NONBLOCK);
    return state->interrupt_fd != -1;
}

// Goes through the stages behind the reader's setup; the result is the one that failed.
basep_hwcnt_reader_stage run_stages(vinstr_state* state, const base_context* ctx) {
    if (!query_api_version(state)) {
        return BASEP_STAGE_API_VERSION;
    }
    if (!request(state, BASE_REQUEST_GET_SAMPLE_SIZE, &state->sample_size)) {
        return BASEP_STAGE_SAMPLE_SIZE;
    }
    if (!request(state, BASE_REQUEST_GET_HWVER, &state->hwver)) {
        return BASEP_STAGE_HWVER;
    }
    lay_out_blocks(state, base_get_gpu_props(ctx));
    if (!map_ring(state)) {
        return BASEP_STAGE_RING;
    }
    return open_interrupt(state) ? BASEP_STAGE_COMPLETE : BASEP_STAGE_INTERRUPT;
}

base_result base_hwcnt_reader_backend_vinstr_init(void** state_out, const base_context* ctx,
                                                  std::uint32_t buffer_count, std::uint32_t jm_bm,
                                                  std::uint32_t shader_bm, std::uint32_t tiler_bm,
                                                  std::uint32_t mmu_l2_bm, std::uint32_t period) {
    void* memory = std::malloc(sizeof(vinstr_state));
    if (memory == nullptr) {
        return BASE_OUT_OF_MEMORY;
    }
    auto* state = new (memory) vinstr_state{};
    state->buffer_count = buffer_count;
    state->period = period;
    state->buffer_held = 0;
    const base_result result = base_context_hwcnt_reader_setup(ctx, buffer_count, jm_bm, shader_bm, tiler_bm,
                                                               mmu_l2_bm, &state->reader_fd);
    if (result != BASE_SUCCESS) {
        basep_hwcnt_reader_term(state, BASEP_STAGE_SETUP);
        return result;
    }
    const basep_hwcnt_reader_stage stage = run_stages(state, ctx);
    if (stage != BASEP_STAGE_COMPLETE) {
        basep_hwcnt_reader_term(state, stage);
        return BASE_FAILURE;
    }
    *state_out = state;
    return BASE_SUCCESS;
}

void base_hwcnt_reader_backend_vinstr_term(void* state) {
    basep_hwcnt_reader_term(to_state(state), BASEP_STAGE_COMPLETE);
}

std::uint32_t base_hwcnt_reader_backend_vinstr_get_hwver(const void* state) {
    return to_state(state)->hwver;
}

std::uint32_t base_hwcnt_reader_backend_vinstr_get_features(const void* state) {
    return to_state(state)->features;
}

std::uint32_t base_hwcnt_reader_backend_vinstr_get_sample_size(const void* state) {
    return to_state(state)->sample_size;
}

base_result base_hwcnt_reader_backend_vinstr_sample_manual(void* state) {
    const vinstr_state* self = to_state(state);
    return self->period == 0 && request(self, BASE_REQUEST_DUMP, 0U) ? BASE_SUCCESS : BASE_FAILURE;
}

base_result base_hwcnt_reader_backend_vinstr_clear(void* state) {
    return request(to_state(state), BASE_REQUEST_CLEAR, 0U) ? BASE_SUCCESS : BASE_FAILURE;
}

base_result base_hwcnt_reader_backend_vinstr_sample_periodic(void* state, std::uint32_t stop) {
    const vinstr_state* self = to_state(state);
    if (self->period == 0) {
        return BASE_FAILURE;
    }
    bool done = false;
    if (stop == BASE_HWCNT_SAMPLING_START) {
        done =
            request(self, BASE_REQUEST_CLEAR, 0U) && request(self, BASE_REQUEST_SET_INTERVAL, self->period);
    } else if (stop == BASE_HWCNT_SAMPLING_STOP) {
        // What was counted since the last sample comes as one more.
        done = request(self, BASE_REQUEST_SET_INTERVAL, 0U) && request(self, BASE_REQUEST_DUMP, 0U);
    }
    return done ? BASE_SUCCESS : BASE_FAILURE;
}

// Waits for a sample. Any event of the reader's counts as one, also an error: claiming the buffer then tells.
base_hwcnt_get_result wait_for_sample(const vinstr_state* state, std::int32_t timeout) {
    pollfd descriptors[] = {{.fd = state->interrupt_fd, .events = POLLIN, .revents = 0},
                            {.fd = state->reader_fd, .events = POLLIN, .revents = 0}};
    int count = 0;
    do {
        // A signal starts the whole time anew.
        count = ::poll(descriptors, std::size(descriptors), timeout);
    } while (count == -1 && errno == EINTR);
    if (count < 0) {
        return BASE_HWCNT_FAILURE;
    }
    if (count == 0) {
        return BASE_HWCNT_TIMEOUT;
    }
    if (descriptors[0].revents != 0) {
        std::uint64_t interrupts = 0;
        // Whether it could be read does not matter.
        [[maybe_unused]] const ssize_t size = ::read(state->interrupt_fd, &interrupts, sizeof interrupts);
        return BASE_HWCNT_INTERRUPTED;
    }
    return descriptors[1].revents != 0 ? BASE_HWCNT_SAMPLE_READY : BASE_HWCNT_FAILURE;
}

bool give_back_buffer(vinstr_state* state) {
    constexpr std::uint32_t cycle_features =
        BASE_HWCNT_READER_FEATURE_CYCLES_TOP | BASE_HWCNT_READER_FEATURE_CYCLES_SHADER;
    return request(state,
                   (state->features & cycle_features) == 0 ? BASE_REQUEST_PUT_BUFFER_SHORT
                                                           : BASE_REQUEST_PUT_BUFFER_LONG,
                   &state->metadata);
}

// Has the kernel hand over the oldest filled buffer. One that lies outside the ring is none, and goes back at
// once.
bool claim_buffer(vinstr_state* state) {
    base_hwcnt_reader_metadata& metadata = state->metadata;
    if ((state->features & BASE_HWCNT_READER_FEATURE_CYCLES_SHADER) != 0) {
        if (!request(state, BASE_REQUEST_GET_BUFFER_LONG, &metadata)) {
            return false;
        }
    } else if ((state->features & BASE_HWCNT_READER_FEATURE_CYCLES_TOP) != 0) {
        if (!request(state, BASE_REQUEST_GET_BUFFER_LONG, &metadata)) {
            return false;
        }
        metadata.cycles_shader = 0;
    } else {
        if (!request(state, BASE_REQUEST_GET_BUFFER_SHORT, &metadata)) {
            return false;
        }
        metadata.cycles_top = 0;
        metadata.cycles_shader = 0;
    }
    if (metadata.buffer_idx >= state->buffer_count) {
        give_back_buffer(state);
        return false;
    }
    return true;
}

// More blocks than a sample can name are left out of `blocks`, and are in the ring all the same. So are those
// that a driver with too small buffers would have behind the ring's end.
void fill_sample(const vinstr_state* state, base_hwcnt_sample* sample) {
    const std::size_t offset = static_cast<std::size_t>(state->metadata.buffer_idx) * state->sample_size;
    const std::size_t blocks_in_ring = (ring_length(state) - offset) / block_size(state);
    const auto count = std::min<std::size_t>({state->num_blocks, BASE_HWCNT_SAMPLE_BLOCKS, blocks_in_ring});
    std::fill(std::begin(sample->blocks), std::end(sample->blocks), nullptr);
    for (std::size_t i = 0; i < count; ++i) {
        sample->blocks[i] = state->ring + offset + i * block_size(state);
    }
    sample->data_is_u64 = 0;
    sample->num_blocks = state->num_blocks;
    sample->values_per_block = state->values_per_block;
    sample->sample_size = state->sample_size;
    sample->timestamp = state->metadata.timestamp;
    sample->event_id = state->metadata.event_id;
    sample->cycles_top = state->metadata.cycles_top;
    sample->cycles_shader = state->metadata.cycles_shader;
}

base_hwcnt_get_result base_hwcnt_reader_backend_vinstr_get_buffer(void* state, base_hwcnt_sample* sample,
                                                                  std::int32_t timeout) {
    vinstr_state* self = to_state(state);
    std::uint32_t not_held = 0;
    if (!self->buffer_held.compare_exchange_strong(not_held, 1)) {
        return BASE_HWCNT_FAILURE;
    }
    base_hwcnt_get_result result = wait_for_sample(self, timeout);
    if (result == BASE_HWCNT_SAMPLE_READY && !claim_buffer(self)) {
        result = BASE_HWCNT_FAILURE;
    }
    if (result == BASE_HWCNT_SAMPLE_READY) {
        fill_sample(self, sample);
    } else {
        self->buffer_held = 0;
    }
    return result;
}

// Does not look whether anything is claimed: the kernel does.
base_result base_hwcnt_reader_backend_vinstr_put_buffer(void* state) {
    vinstr_state* self = to_state(state);
    if (!give_back_buffer(self)) {
        return BASE_FAILURE;
    }
    self->buffer_held = 0;
    return BASE_SUCCESS;
}

void base_hwcnt_reader_backend_vinstr_interrupt(void* state) {
    const std::uint64_t one = 1;
    // A full counter can't take it, and wakes the reader all the same.
    [[maybe_unused]] const ssize_t size = ::write(to_state(state)->interrupt_fd, &one, sizeof one);
}

std::uint32_t base_hwcnt_reader_backend_vinstr_data_is_u64(const void* /*state*/) {
    return 0;
}

}  // namespace

void base_hwcnt_reader_backend_vinstr_create(base_hwcnt_reader_operations* backend) {
    *backend = {
        .init = base_hwcnt_reader_backend_vinstr_init,
        .term = base_hwcnt_reader_backend_vinstr_term,
        .get_hwver = base_hwcnt_reader_backend_vinstr_get_hwver,
        .get_features = base_hwcnt_reader_backend_vinstr_get_features,
        .get_sample_size = base_hwcnt_reader_backend_vinstr_get_sample_size,
        .sample_manual = base_hwcnt_reader_backend_vinstr_sample_manual,
        .sample_periodic = base_hwcnt_reader_backend_vinstr_sample_periodic,
        .clear = base_hwcnt_reader_backend_vinstr_clear,
        .get_buffer = base_hwcnt_reader_backend_vinstr_get_buffer,
        .put_buffer = base_hwcnt_reader_backend_vinstr_put_buffer,
        .interrupt = base_hwcnt_reader_backend_vinstr_interrupt,
        .data_is_u64 = base_hwcnt_reader_backend_vinstr_data_is_u64,
    };
}
