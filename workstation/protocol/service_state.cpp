#include "workstation/protocol/service_state.h"

#include <cstdint>
#include <map>

#include "workstation/protocol/messages.h"

namespace qel::vexa::protocol {

namespace {

enum state_field : std::uint32_t { state_producers = 1, state_sources = 2 };
enum producer_field : std::uint32_t { producer_id = 1, producer_name = 2 };
enum source_field : std::uint32_t { source_descriptor = 1, source_producer = 2 };
enum source_descriptor_field : std::uint32_t { descriptor_name = 1, descriptor_gpu_counters = 5 };

constexpr std::string_view counters_source_name = "gpu.counters";

struct source {
    std::string name;
    std::uint32_t producer = 0;
    std::vector<counter_description> counters;
};

bool read_descriptor(std::string_view bytes, source& result) {
    return for_each_field(bytes, [&result](const field& each) {
        switch (each.id) {
            case descriptor_name:
                return take_text(each, result.name);
            case descriptor_gpu_counters:
                return each.is_bytes() && read_counter_descriptor(each.bytes, result.counters);
            default:
                return true;
        }
    });
}

bool read_source(std::string_view bytes, source& result) {
    return for_each_field(bytes, [&result](const field& each) {
        switch (each.id) {
            case source_descriptor:
                return each.is_bytes() && read_descriptor(each.bytes, result);
            case source_producer:
                return take_number(each, result.producer);
            default:
                return true;
        }
    });
}

bool read_producer(std::string_view bytes, std::map<std::uint32_t, std::string>& names) {
    std::uint32_t id = 0;
    std::string name;
    const bool is_whole = for_each_field(bytes, [&](const field& each) {
        return each.id == producer_id     ? take_number(each, id)
               : each.id == producer_name ? take_text(each, name)
                                          : true;
    });
    names[id] = name;
    return is_whole;
}

}  // namespace

std::optional<std::vector<counter_source>> read_counter_sources(std::string_view service_state) {
    std::map<std::uint32_t, std::string> producers;
    std::vector<source> sources;
    const bool is_whole = for_each_field(service_state, [&](const field& each) {
        switch (each.id) {
            case state_producers:
                return each.is_bytes() && read_producer(each.bytes, producers);
            case state_sources:
                return each.is_bytes() && read_source(each.bytes, sources.emplace_back());
            default:
                return true;
        }
    });
    if (!is_whole) {
        return std::nullopt;
    }
    std::vector<counter_source> result;
    for (source& each : sources) {
        if (each.name == counters_source_name) {
            result.push_back({producers[each.producer], std::move(each.counters)});
        }
    }
    return result;
}

std::vector<counter_description> read_offered_counters(std::string_view service_state) {
    const auto sources = read_counter_sources(service_state);
    return sources && !sources->empty() ? sources->front().counters : std::vector<counter_description>();
}

}  // namespace qel::vexa::protocol
