// The GPU behind a device node, apart from what the tools of a workstation have use for.

#include "hwc/product.h"

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
    find_counters(ec);
}

}  // namespace qel::vexa::hwc
