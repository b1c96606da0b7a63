#include "base/vexa_base_hwcnt_reader.h"

#include <cstdlib>

#include "base/vexa_base_hwcnt_reader_backend_vinstr.h"

base_result base_hwcnt_reader_init(base_hwcnt_reader** reader_out, const base_context* ctx,
                                   std::uint32_t buffer_count, std::uint32_t jm_bm, std::uint32_t shader_bm,
                                   std::uint32_t tiler_bm, std::uint32_t mmu_l2_bm, std::uint32_t period) {
    auto* reader = static_cast<base_hwcnt_reader*>(std::malloc(sizeof(base_hwcnt_reader)));
    if (reader == nullptr) {
        return BASE_FAILURE;  // and not "out of memory", on purpose
    }
    *reader = {};
    base_hwcnt_reader_backend_vinstr_create(&reader->backend);
    const base_result result = reader->backend.init(&reader->state, ctx, buffer_count, jm_bm, shader_bm,
                                                    tiler_bm, mmu_l2_bm, period);
    if (result != BASE_SUCCESS) {
        std::free(reader);
        return result;
    }
    *reader_out = reader;
    return BASE_SUCCESS;
}

void base_hwcnt_reader_term(base_hwcnt_reader* reader) {
    reader->backend.term(reader->state);
    std::free(reader);
}

std::uint32_t base_hwcnt_reader_get_hwver(const base_hwcnt_reader* reader) {
    return reader->backend.get_hwver(reader->state);
}

base_result base_hwcnt_reader_sample_periodic(base_hwcnt_reader* reader, std::uint32_t stop) {
    return reader->backend.sample_periodic(reader->state, stop);
}

base_result base_hwcnt_reader_clear(base_hwcnt_reader* reader) {
    return reader->backend.clear(reader->state);
}

base_hwcnt_get_result base_hwcnt_reader_get_buffer(base_hwcnt_reader* reader, base_hwcnt_sample* sample,
                                                   std::int32_t timeout) {
    return reader->backend.get_buffer(reader->state, sample, timeout);
}

base_result base_hwcnt_reader_put_buffer(base_hwcnt_reader* reader) {
    return reader->backend.put_buffer(reader->state);
}

void base_hwcnt_reader_interrupt(base_hwcnt_reader* reader) {
    reader->backend.interrupt(reader->state);
}
