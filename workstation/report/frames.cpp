#include "workstation/report/frames.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "workstation/protocol/messages.h"

namespace qel::vexa::report {

namespace {

using protocol::field;
using protocol::for_each_field;
using protocol::take_number;

enum : std::uint32_t {
    expected_display = 1,
    actual_display = 2,
    expected_surface = 3,
    actual_surface = 4,
    frame_end = 5
};

enum buffer_event : std::uint32_t { buffer_dequeue = 1, buffer_present_fence = 8, buffer_cancel = 13 };

constexpr std::uint32_t clock_monotonic_raw = 5;
constexpr std::uint32_t present_dropped = 4;
// Frames that never end and predictions that nobody asks for must not gather.
constexpr std::size_t most_open = 4096;
// A mark can be told after later ones of the same buffer.
constexpr std::size_t most_dequeued = 4;

template <typename Map>
void forget_oldest(Map& map) {
    if (map.size() > most_open) {
        map.erase(map.begin());
    }
}

// The time on CLOCK_MONOTONIC_RAW by the snapshot before, or else the first one.
std::uint64_t moved(std::uint64_t time, const std::map<std::uint64_t, std::uint64_t>& snapshots) {
    auto next = snapshots.upper_bound(time);
    if (next != snapshots.begin()) {
        --next;
    }
    return time + (next->second - next->first);
}

}  // namespace

std::string layer_name(const std::string& layer) {
    return layer.empty() ? "display" : layer;
}

bool is_late(const frame& one) {
    return one.jank > 1 || one.is_dropped;
}

std::string jank_text(const frame& one) {
    std::string result = one.is_dropped ? "dropped" : "";
    std::uint32_t bit = 2;
    for (const char* const reason : jank_reasons) {
        if ((one.jank & bit) != 0) {
            result += (result.empty() ? "" : ", ") + std::string(reason);
        }
        bit <<= 1;
    }
    return !result.empty() ? result : one.jank > 1 ? "late" : one.jank == 1 ? "on time" : "not judged";
}

std::vector<frame_layer> layers_of(std::span<const frame> frames) {
    std::vector<frame_layer> result;
    std::map<std::string, std::size_t> places;
    for (const frame& one : frames) {
        const auto [entry, is_new] = places.try_emplace(one.layer, result.size());
        if (is_new) {
            result.push_back({.name = layer_name(one.layer)});
        }
        frame_layer& layer = result[entry->second];
        ++layer.frames;
        layer.late += is_late(one) ? 1U : 0U;
        layer.longest = std::max(layer.longest, one.end - one.start);
    }
    return result;
}

std::vector<std::size_t> numbers_of(std::span<const frame> frames) {
    std::vector<std::size_t> result;
    std::map<std::string, std::size_t> counts;
    for (const frame& one : frames) {
        result.push_back(++counts[one.layer]);
    }
    return result;
}

void frame_collector::on_clocks(std::string_view snapshot) {
    std::map<std::uint32_t, std::uint64_t> times;
    for_each_field(snapshot, [&times](const field& each) {
        if (each.id != 1 || !each.is_bytes()) {
            return true;
        }
        std::uint32_t clock = 0;
        std::uint64_t time = 0;
        for_each_field(each.bytes, [&](const field& part) {
            return part.id == 1 ? take_number(part, clock) : part.id != 2 || take_number(part, time);
        });
        times[clock] = time;
        return true;
    });
    const auto raw = times.find(clock_monotonic_raw);
    if (raw == times.end()) {
        return;
    }
    for (const auto& [clock, time] : times) {
        std::map<std::uint64_t, std::uint64_t>& known = raw_time_[clock];
        if (known.size() < most_open) {
            known[time] = raw->second;
        }
    }
}

void frame_collector::on_timeline_event(std::uint64_t time, std::uint32_t clock, std::string_view event) {
    for_each_field(event, [&](const field& each) {
        if (each.id < expected_display || each.id > frame_end || !each.is_bytes()) {
            return true;
        }
        const bool is_surface = each.id == expected_surface || each.id == actual_surface;
        std::int64_t cookie = 0;
        std::uint64_t present = 0;
        started one{.begun = {.start = time,
                              .end = 0,
                              .expected_end = 0,
                              .token = 0,
                              .layer = {},
                              .jank = 0,
                              .is_dropped = false},
                    .display_token = 0,
                    .clock = clock,
                    .is_expected = each.id == expected_display || each.id == expected_surface};
        const std::uint32_t present_field = is_surface ? 6 : 4;
        const std::uint32_t jank_field = is_surface ? 9 : 7;
        for_each_field(each.bytes, [&](const field& part) {
            if (part.id == 1) {
                return take_number(part, cookie);
            }
            if (part.id == 2) {
                return take_number(part, one.begun.token);
            }
            if (is_surface && part.id == 5) {
                return protocol::take_text(part, one.begun.layer);
            }
            if (!one.is_expected && part.id == present_field) {
                return take_number(part, present);
            }
            if (!one.is_expected && part.id == jank_field) {
                return take_number(part, one.begun.jank);
            }
            return true;
        });
        one.begun.is_dropped = present == present_dropped;
        if (each.id != frame_end) {
            started_[cookie] = std::move(one);
            forget_oldest(started_);
            return true;
        }
        const auto found = started_.find(cookie);
        if (found == started_.end()) {
            return true;
        }
        started ended = std::move(found->second);
        started_.erase(found);
        if (time < ended.begun.start || ended.clock != clock) {
            return true;
        }
        const std::pair key(ended.begun.layer, ended.begun.token);
        if (ended.is_expected) {
            expected_ends_[key] = time;
            forget_oldest(expected_ends_);
            return true;
        }
        ended.begun.end = time;
        if (const auto expected = expected_ends_.find(key); expected != expected_ends_.end()) {
            ended.begun.expected_end = expected->second;
            expected_ends_.erase(expected);
        }
        if (!has_timeline_) {
            has_timeline_ = true;
            finished_.clear();
            left_out_ = 0;
        }
        add({.whole = std::move(ended.begun), .clock = clock});
        return true;
    });
}

// A frame goes from the moment when its buffer was handed out for drawing to that when the display showed it.
void frame_collector::on_buffer_event(std::uint64_t time, std::uint32_t clock, std::string_view event) {
    if (has_timeline_) {
        return;
    }
    for_each_field(event, [&](const field& each) {
        if (each.id != 1 || !each.is_bytes()) {
            return true;
        }
        std::uint32_t number = 0;
        std::uint32_t type = 0;
        std::uint32_t buffer_number = 0;
        std::string layer;
        for_each_field(each.bytes, [&](const field& part) {
            return part.id == 1   ? take_number(part, number)
                   : part.id == 2 ? take_number(part, type)
                   : part.id == 3 ? protocol::take_text(part, layer)
                                  : part.id != 5 || take_number(part, buffer_number);
        });
        const buffer key(clock, layer, buffer_number);
        if (type == buffer_dequeue) {
            std::set<std::uint64_t>& starts = dequeued_[key];
            starts.insert(time);
            if (starts.size() > most_dequeued) {
                starts.erase(starts.begin());
            }
            forget_oldest(dequeued_);
            return true;
        }
        const auto found = dequeued_.find(key);
        if ((type != buffer_present_fence && type != buffer_cancel) || found == dequeued_.end()) {
            return true;
        }
        const auto behind = found->second.upper_bound(time);
        if (behind == found->second.begin()) {
            return true;
        }
        const auto begun = std::prev(behind);
        if (type == buffer_cancel) {
            found->second.erase(begun);
        } else {
            const std::uint64_t start = *begun;
            found->second.erase(found->second.begin(), behind);
            add({.whole = {.start = start,
                           .end = time,
                           .expected_end = 0,
                           .token = number,
                           .layer = std::move(layer),
                           .jank = 0,
                           .is_dropped = false},
                 .clock = clock});
        }
        return true;
    });
}

void frame_collector::add(finished&& one) {
    finished_.push_back(std::move(one));
    if (finished_.size() >= limit_ + limit_ / 4) {
        leave_out_shortest();
    }
}

void frame_collector::leave_out_shortest() {
    if (finished_.size() <= limit_) {
        return;
    }
    std::nth_element(finished_.begin(), finished_.begin() + static_cast<std::ptrdiff_t>(limit_),
                     finished_.end(), [](const finished& left, const finished& right) {
                         return left.whole.end - left.whole.start > right.whole.end - right.whole.start;
                     });
    left_out_ += finished_.size() - limit_;
    finished_.resize(limit_);
}

std::vector<frame> frame_collector::finish() {
    leave_out_shortest();
    std::vector<frame> result;
    for (finished& one : finished_) {
        const auto snapshots = raw_time_.find(one.clock);
        if (one.clock != clock_monotonic_raw) {
            if (snapshots == raw_time_.end()) {
                ++left_out_;
                continue;
            }
            for (std::uint64_t* time : {&one.whole.start, &one.whole.end, &one.whole.expected_end}) {
                *time = *time == 0 ? 0 : moved(*time, snapshots->second);
            }
        }
        result.push_back(std::move(one.whole));
    }
    finished_.clear();
    std::stable_sort(result.begin(), result.end(),
                     [](const frame& left, const frame& right) { return left.start < right.start; });
    return result;
}

}  // namespace qel::vexa::report
