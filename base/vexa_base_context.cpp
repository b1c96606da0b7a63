#include "base/vexa_base_context.h"

#include <sys/mman.h>

#include "cdbg/env.h"
#include "cdbg/print.h"
#include "stdlib/vexa_stdlib.h"

namespace {

// The interface that is asked for, and the lowest minor that will do.
constexpr std::uint16_t INTERFACE_MAJOR = 11;
constexpr std::uint16_t INTERFACE_MINOR = 33;
constexpr std::uint16_t INTERFACE_MINOR_MIN = 28;

// The creation flags that are the kernel's business.
constexpr std::uint32_t KERNEL_CREATE_FLAGS_MASK = 0x7a;

// Results of opening the node. 1 and 2 mean the opposite in basep_context_result: the numbers are swapped
// where one becomes the other, on purpose.
enum base_uk_result : std::uint32_t {
    BASE_UK_SUCCESS = 0,
    BASE_UK_VERSION_REFUSED = 1,  // not open any more
    BASE_UK_NOT_OPENED = 2,
};

// Results of one attempt at one instance.
enum basep_context_result : std::uint32_t {
    BASEP_CONTEXT_UP = 0,
    BASEP_CONTEXT_NO_DEVICE = 1,
    BASEP_CONTEXT_NOT_ACCEPTED = 2,  // the version or the GPU: the next instance may be better
    BASEP_CONTEXT_FAILURE = 3,
};

enum basep_context_stage : std::uint32_t {
    BASEP_STAGE_NODE,
    BASEP_STAGE_FLAGS,
    BASEP_STAGE_TRACKING_PAGE,
    BASEP_STAGE_PROPERTIES,
    BASEP_STAGE_COMPATIBILITY,
};
constexpr const char* STAGE_NAMES[] = {
    "opening of kernel driver",          "initializing of kernel context flags",
    "memory mapping of tracking handle", "allocation of GPU properties",
    "DDK compatibility check",
    "an invalid initialization state",  // no stage has this name
};

base_uk_result base_uk_ctx_init_ex(base_context* base, std::uint32_t /*flags*/, std::uint32_t instance) {
    base->interface_major = INTERFACE_MAJOR;
    base->interface_minor = INTERFACE_MINOR;
    base_version_record version{.major = INTERFACE_MAJOR, .minor = INTERFACE_MINOR};
    switch (uku_open(UKU_CLIENT, instance, &version, &base->uk)) {
        case UKU_OPEN_SUCCESS:
            return BASE_UK_SUCCESS;  // a higher minor of the driver's is not used
        case UKU_OPEN_FAILURE:
            return BASE_UK_NOT_OPENED;
        case UKU_OPEN_OTHER_VERSION:
            break;
    }
    if (version.major == INTERFACE_MAJOR && version.minor >= INTERFACE_MINOR_MIN) {
        base->interface_minor = version.minor;
        return BASE_UK_SUCCESS;
    }
    uku_close(&base->uk);
    return BASE_UK_VERSION_REFUSED;
}

void base_uk_ctx_term(const base_context* base) {
    uku_close(&base->uk);
}

base_result basep_map_mtp(base_context* ctx) {
    ctx->tracking_page = ::mmap64(nullptr, BASE_TRACKING_PAGE_SIZE, PROT_NONE, MAP_SHARED,
                                  uku_get_fd(&ctx->uk), BASE_TRACKING_PAGE_OFFSET);
    return ctx->tracking_page == MAP_FAILED ? BASE_FAILURE : BASE_SUCCESS;
}

void basep_unmap_mtp(base_context* ctx) {
    ::munmap(ctx->tracking_page, BASE_TRACKING_PAGE_SIZE);
    ctx->tracking_page = nullptr;
}

base_result basep_alloc_gpu_props(base_context* ctx) {
    return basep_ioctl_get_properties(&ctx->uk, &ctx->props);
}

// Undoes what was done before this stage.
void basep_context_term_partial(base_context* ctx, std::uint32_t stage) {
    for (; stage != BASEP_STAGE_NODE; --stage) {
        if (stage == BASEP_STAGE_PROPERTIES) {
            basep_unmap_mtp(ctx);
        } else if (stage == BASEP_STAGE_FLAGS) {
            base_uk_ctx_term(ctx);
        }
    }
}

void print_failed_stage(std::uint32_t stage) {
    cdbg_print_to_error_channel("Failed creating base context during %s.", STAGE_NAMES[stage]);
}

// The stages between the open node and the whole context.
basep_context_result run_stages(base_context* ctx, std::uint32_t instance, std::uint32_t verbose,
                                basep_context_stage& stage) {
    stage = BASEP_STAGE_FLAGS;
    base_flags_record flags{.create_flags = ctx->create_flags & KERNEL_CREATE_FLAGS_MASK};
    if (basep_ioctl_set_flags(&ctx->uk, &flags) != BASE_SUCCESS) {
        return BASEP_CONTEXT_FAILURE;
    }
    stage = BASEP_STAGE_TRACKING_PAGE;
    if (basep_map_mtp(ctx) != BASE_SUCCESS) {
        return BASEP_CONTEXT_FAILURE;
    }
    stage = BASEP_STAGE_PROPERTIES;
    if (basep_alloc_gpu_props(ctx) != BASE_SUCCESS) {
        return BASEP_CONTEXT_FAILURE;
    }
    stage = BASEP_STAGE_COMPATIBILITY;
    return uku_ddk_compatible(base_get_gpu_props(ctx), verbose, instance) != 0 ? BASEP_CONTEXT_UP
                                                                               : BASEP_CONTEXT_NOT_ACCEPTED;
}

// One attempt at one instance. Only the reasons for not accepting a GPU wait for `verbose`: other failures
// are printed always, and the failure to open a node for instance 0 alone.
basep_context_result basep_context_init(base_context* ctx, std::uint32_t flags, std::uint32_t instance,
                                        std::uint32_t verbose) {
    ctx->reserved_state = 0;
    ctx->create_flags = flags;
    const base_uk_result opened = base_uk_ctx_init_ex(ctx, flags, instance);
    if (opened != BASE_UK_SUCCESS) {
        if (instance == 0) {
            print_failed_stage(BASEP_STAGE_NODE);
            cdbg_print_to_error_channel("Kernel module may not have been loaded");
        }
        return opened == BASE_UK_VERSION_REFUSED ? BASEP_CONTEXT_NOT_ACCEPTED : BASEP_CONTEXT_NO_DEVICE;
    }
    basep_context_stage stage = BASEP_STAGE_NODE;
    const basep_context_result result = run_stages(ctx, instance, verbose, stage);
    if (result == BASEP_CONTEXT_UP) {
        uku_set_instance(&ctx->uk, instance);
        return result;
    }
    if (result == BASEP_CONTEXT_FAILURE || verbose != 0) {
        print_failed_stage(stage);
    }
    basep_context_term_partial(ctx, stage);
    return result;
}

// Tries instance 0, 1, 2 and so on for as long as they are not accepted. There is no highest one: a missing
// device ends it. `instance` is the last one tried.
basep_context_result try_instances(base_context* ctx, std::uint32_t flags, std::uint32_t verbose,
                                   std::uint32_t& instance) {
    instance = 0;
    basep_context_result result = basep_context_init(ctx, flags, instance, verbose);
    while (result == BASEP_CONTEXT_NOT_ACCEPTED) {
        result = basep_context_init(ctx, flags, ++instance, verbose);
    }
    return result;
}

std::uint32_t search_instances(base_context* ctx, std::uint32_t flags) {
    std::uint32_t instance = 0;
    const basep_context_result result = try_instances(ctx, flags, 0, instance);
    if (result == BASEP_CONTEXT_NO_DEVICE && instance != 0) {
        // There are devices, and none will do. The same again, for the sake of the reasons that the first
        // round kept to itself. This is no second chance, deliberately: whatever it brings up stays up, and
        // the answer is no.
        try_instances(ctx, flags, 1, instance);
    }
    return result == BASEP_CONTEXT_UP ? 1 : 0;
}

}  // namespace

std::uint32_t base_context_init(base_context* ctx, std::uint32_t flags) {
    return base_context_init_for_instance(ctx, flags, BASE_ANY_INSTANCE);
}

std::uint32_t base_context_init_for_instance(base_context* ctx, std::uint32_t flags, std::uint32_t instance) {
    constexpr std::uint32_t setting_size = 11;  // ten characters: longer values are cut
    constexpr int decimal = 10;
    if (instance == BASE_ANY_INSTANCE) {
        char setting[setting_size] = {};
        if (cdbg_env_get("INSTANCE", setting, sizeof setting) == CDBG_ENV_ABSENT) {
            return search_instances(ctx, flags);
        }
        if (stdlibp_nonline_strtou32(&instance, setting, nullptr, decimal) != STDLIB_SUCCESS) {
            cdbg_print_to_error_channel("Invalid value for environment variable VEXA_INSTANCE");
            return 0;
        }
    }
    return basep_context_init(ctx, flags, instance, 1) == BASEP_CONTEXT_UP ? 1 : 0;
}

void base_context_term(base_context* ctx) {
    basep_unmap_mtp(ctx);
    base_uk_ctx_term(ctx);
}

const base_gpu_props* base_get_gpu_props(const base_context* ctx) {
    return &ctx->props;
}

base_result base_context_hwcnt_reader_setup(const base_context* ctx, std::uint32_t buffer_count,
                                            std::uint32_t jm_bm, std::uint32_t shader_bm,
                                            std::uint32_t tiler_bm, std::uint32_t mmu_l2_bm,
                                            std::int32_t* out_fd) {
    base_hwcnt_reader_setup_record record{.buffer_count = buffer_count,
                                          .jm_bm = jm_bm,
                                          .shader_bm = shader_bm,
                                          .tiler_bm = tiler_bm,
                                          .mmu_l2_bm = mmu_l2_bm};
    return basep_ioctl_hwcnt_reader_setup(&ctx->uk, &record, out_fd);
}
