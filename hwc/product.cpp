#include "hwc/product.h"

#include <cerrno>

namespace qel::vexa::hwc {

product::product(const hardware::gpu_info& numbers, std::error_code& ec) : gpu_info(numbers) {
    find_counters(ec);
}

void product::find_counters(std::error_code& ec) {
    const auto entry = product_tables.find(gpu_info::product);
    if (entry == product_tables.end()) {
        ec = std::error_code(EINVAL, std::generic_category());
        return;
    }
    counters = &entry->second.get();
}

}  // namespace qel::vexa::hwc
