// The detected GPU and the table that describes its counters.
#pragma once

#include <functional>
#include <map>
#include <system_error>

#include "hardware/info.h"
#include "hwc/counter_table.h"
#include "stx/path.h"

namespace qel::vexa::hwc {

// Which table describes which product. Built at load time and constant from then on.
extern const std::map<hardware::product, std::reference_wrapper<const counter_table>> product_tables;

struct product : hardware::gpu_info {
    // Detects the GPU behind a device node. On failure ec is set, as hardware::props and hardware::info set
    // it, and all numbers are zero; or it is EINVAL of the generic category for a product without a table.
    product(const stx::backport::filesystem::path& path, std::error_code& ec);

    // The GPU that these numbers describe, without looking for a device. On failure ec is EINVAL as above.
    product(const hardware::gpu_info& numbers, std::error_code& ec);

    const counter_table* counters = nullptr;  // null exactly when ec was set

private:
    void find_counters(std::error_code& ec);
};

}  // namespace qel::vexa::hwc
