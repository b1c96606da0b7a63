#include "workstation/report/requested.h"

#include <algorithm>
#include <protozero/varint.hpp>

#include "workstation/protocol/messages.h"

namespace qel::vexa::report {

namespace {

using protocol::field;
using protocol::for_each_field;

enum config_field : std::uint32_t { config_data_sources = 2 };
enum data_source_field : std::uint32_t { data_source_config = 1 };
enum source_config_field : std::uint32_t { source_gpu_counters = 108 };
enum counter_config_field : std::uint32_t { counter_ids = 2, counter_names = 6 };

// Ids stand one by one or packed together.
void add_ids(const field& each, std::set<std::uint32_t>& ids) {
    std::uint32_t id = 0;
    if (!each.is_bytes()) {
        if (protocol::take_number(each, id)) {
            ids.insert(id);
        }
        return;
    }
    try {
        const char* next = each.bytes.data();
        const char* const end = next + each.bytes.size();
        while (next != end) {
            ids.insert(static_cast<std::uint32_t>(protozero::decode_varint(&next, end)));
        }
    } catch (const protozero::exception&) {  // what stands before is good
    }
}

// Calls take(field) for the fields with this number of a message.
template <typename Take>
void for_each_numbered(std::string_view message, std::uint32_t number, Take take) {
    for_each_field(message, [&](const field& each) {
        if (each.id == number) {
            take(each);
        }
        return true;
    });
}

}  // namespace

void requested_counters::add_config(std::string_view config) {
    for_each_numbered(config, config_data_sources, [this](const field& source) {
        for_each_numbered(source.bytes, data_source_config, [this](const field& source_config) {
            for_each_numbered(source_config.bytes, source_gpu_counters, [this](const field& counters) {
                for_each_numbered(counters.bytes, counter_ids,
                                  [this](const field& each) { add_ids(each, ids_); });
                for_each_numbered(counters.bytes, counter_names, [this](const field& each) {
                    std::string name;
                    if (protocol::take_text(each, name) && name.find_first_of("*?[") == std::string::npos) {
                        names_.insert(name);
                    }
                });
            });
        });
    });
}

void requested_counters::add_described(const std::vector<counter_description>& counters) {
    for (const counter_description& counter : counters) {
        described_ids_.insert(counter.id);
        described_names_.insert(counter.name);
    }
}

std::vector<std::string> requested_counters::missing() const {
    std::vector<std::string> result;
    if (described_ids_.empty()) {
        return result;
    }
    const std::string end = " was asked for, and the GPU that was recorded does not have it";
    for (const std::uint32_t id : ids_) {
        if (!described_ids_.contains(id)) {
            result.push_back("the counter with id " + std::to_string(id) + end);
        }
    }
    for (const std::string& name : names_) {
        if (!described_names_.contains(name)) {
            result.push_back(std::string("the counter \"").append(name).append("\"").append(end));
        }
    }
    return result;
}

}  // namespace qel::vexa::report
