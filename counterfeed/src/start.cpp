#include "counterfeed/src/start.h"

#include <unistd.h>

#include "counterfeed/src/registration.h"
#include "logging/logging.h"

namespace qel::vexa::counterfeed {

namespace {

constexpr logging::tag start_tag("counterfeed");
constexpr unsigned parking_interval_seconds = 10;

void do_main() {
    connect_to_tracing_service();
    if (!register_vexa_gpu_data_source()) {
        logging::print::log::e(start_tag, "Failed to register vexa_gpu_data_source\n");
        return;
    }
    while (true) {
        ::sleep(parking_interval_seconds);
    }
}

}  // namespace
}  // namespace qel::vexa::counterfeed

void start() {
    qel::vexa::counterfeed::do_main();
}
