#include "hwc/product.h"

#include <cerrno>

namespace qel::vexa::hwc {

product::product(const stx::backport::filesystem::path& path, std::error_code& ec) {
    const hardware::property_bytes bytes = hardware::props(path, ec);
    if (ec) {
        return;
    }
    static_cast<hardware::gpu_info&>(*this) = hardware::info(bytes, ec);
    if (ec) {
        return;
    }
    const auto entry = product_tables.find(gpu_info::product);
    if (entry == product_tables.end()) {
        ec = std::error_code(EINVAL, std::generic_category());
        return;
    }
    counters = &entry->second.get();
}

}  // namespace qel::vexa::hwc
