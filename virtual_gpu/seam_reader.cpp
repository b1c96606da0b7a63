#include "virtual_gpu/seam_reader.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "virtual_gpu/clock.h"

namespace qel::vexa::virtual_gpu {

seam_reader::seam_reader(std::unique_ptr<sample_source> source, const sample_layout& layout,
                         const seam_reader_options& options)
    : source_(std::move(source)), options_(options), words_(layout.word_count()) {
    if (options_.initialized) {
        interrupt_fd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    }
}

seam_reader::~seam_reader() {
    if (is_initialized()) {
        ::close(interrupt_fd_);
    }
}

bool seam_reader::is_initialized() const {
    return interrupt_fd_ >= 0;
}

std::uint32_t seam_reader::get_hwver() const {
    return is_initialized() ? options_.hwver : 0;
}

bool seam_reader::begin_sampling_periodic() {
    if (!is_initialized() || options_.begin_fails || begin_) {
        return false;
    }
    begin_ = raw_clock();
    return true;
}

// There is no timer that runs on the samples' clock. So each wait is as long as that clock says anew, and
// nothing adds up.
bool seam_reader::wait_until(std::uint64_t due) const {
    pollfd interrupted{.fd = interrupt_fd_, .events = POLLIN, .revents = 0};
    for (;;) {
        const std::uint64_t time = options_.free_running ? due : raw_clock();
        const std::uint64_t left = time < due ? due - time : 0;
        const timespec timeout{.tv_sec = static_cast<time_t>(left / nanoseconds_per_second),
                               .tv_nsec = static_cast<long>(left % nanoseconds_per_second)};
        const int result = ::ppoll(&interrupted, 1, &timeout, nullptr);
        if (result > 0 || (result < 0 && errno != EINTR)) {
            return false;
        }
        if (left == 0) {
            return true;
        }
    }
}

void seam_reader::process_buffers_until_interrupted(counterfeed::sample_callback callback) {
    if (!begin_) {
        return;
    }
    std::optional<std::uint64_t> previous;
    for (std::uint64_t delivered = 0; options_.stop_after != delivered;) {
        const std::uint64_t begin = *begin_ + next_number_ * options_.period_ns;
        const sample_interval interval{
            .number = next_number_, .begin = begin, .end = begin + options_.period_ns};
        if (!wait_until(interval.end)) {
            return;
        }
        ++next_number_;
        const std::uint64_t cycles = source_->take(interval, words_);
        if (previous) {
            callback(interval.end, interval.end - *previous, cycles, words_.data());
            ++delivered;
        }
        previous = interval.end;
    }
}

void seam_reader::interrupt() {
    if (is_initialized()) {
        ::eventfd_write(interrupt_fd_, 1);
    }
}

}  // namespace qel::vexa::virtual_gpu
