#include "logging/logging.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "logging/callback.h"
#include "tests/support/platform_log.h"

namespace {

bool snprintf_fails = false;

int format_line(char* buffer, std::size_t size, const char* format, std::va_list arguments) {
    const int result = std::vsnprintf(buffer, size, format, arguments);
    if (snprintf_fails && std::string_view(format).starts_with("%s:%d")) {
        buffer[5] = '\0';
        return -1;
    }
    return result;
}

}  // namespace

// These take the place of the C library's, so that the formatting of a log line can be made to fail half-way.
// The others are what hardened code calls.
extern "C" int snprintf(char* buffer, std::size_t size, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const int result = format_line(buffer, size, format, arguments);
    va_end(arguments);
    return result;
}
extern "C" int __snprintf_chk(char* buffer, std::size_t size, int /*flag*/, std::size_t /*room*/,
                              const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const int result = format_line(buffer, size, format, arguments);
    va_end(arguments);
    return result;
}
extern "C" int __vsnprintf_chk(char* buffer, std::size_t size, int /*flag*/, std::size_t /*room*/,
                               const char* format, std::va_list arguments) {
    return format_line(buffer, size, format, arguments);
}

namespace {

using namespace qel::vexa;  // NOLINT(google-build-using-namespace)
using test_support::log_line;
using test_support::take_log_lines;

constexpr logging::tag test_tag("a tag");
const logging::print::logger logger(test_tag);

struct message {
    stx::source_location location;
    logging::priority level;
    std::string sender;
    std::string text;
};

// Receives all messages for as long as it lives.
class recorder {
public:
    recorder()
        : before_(
              logging::exchange_callback([this](const stx::source_location& location, logging::priority level,
                                                logging::tag sender, std::string_view text) {
                  messages.push_back(
                      {location, level, std::string(sender.text, sender.length), std::string(text)});
              })) {}
    ~recorder() { logging::exchange_callback(before_); }
    recorder(const recorder&) = delete;
    recorder& operator=(const recorder&) = delete;

    std::vector<message> messages;

private:
    logging::callback before_;
};

TEST(Logging, CallbackSeesTheCallSiteAndTheTextUpToItsLimit) {
#ifdef __ANDROID__
    GTEST_SKIP() << "every character is one in its C library's only encoding";
#endif
    recorder seen;
    const std::string longest(1023, 'x');
    const unsigned first_line = __LINE__ + 1;
    logger.e("number %d\n", 12);
    logger.w("%s", "no newline");
    logging::print::log::e(test_tag, "plain %d", 3);
    logger.e("%s", longest.c_str());
    logger.e("%s more", longest.c_str());
    logger.e("%s", "");
    logger.e("lost %lc", 0x20ac);  // no such character in the C locale
    const std::string texts[] = {"number 12\n", "no newline", "plain 3",         longest,
                                 longest,       "",           "failed to format"};
    ASSERT_EQ(seen.messages.size(), std::size(texts));
    for (unsigned i = 0; i < std::size(texts); ++i) {
        const message& got = seen.messages[i];
        EXPECT_EQ(got.text, texts[i]);
        EXPECT_EQ(got.level, i == 1 ? logging::priority::warning : logging::priority::error);
        EXPECT_EQ(got.sender, "a tag");
        EXPECT_STREQ(got.location.file, "tests/logging/logging_test");
        EXPECT_STREQ(got.location.function, "TestBody");
        EXPECT_EQ(got.location.line, first_line + i);
        EXPECT_GT(got.location.column, 4U);
    }
}

TEST(Logging, PlatformLogGetsTheBareMessageUnlessTheLocationLineFails) {
#ifdef __ANDROID__
    GTEST_SKIP() << "the compiler calls the C library's formatter there under a name that is not replaced";
#endif
    take_log_lines();
    logger.w("id %u\n", 12U);
    snprintf_fails = true;
    logger.e("id %u\n", 13U);
    snprintf_fails = false;
    EXPECT_EQ(take_log_lines(), (std::vector<log_line>{{5, "a tag", "id 12\n"}, {6, "a tag", "tests"}}));
}

TEST(Logging, MessageIsDroppedWhileTheCallbackIsBeingReplaced) {
    recorder seen;
    {
        const std::unique_lock held(logging::detail::current_callback.lock);
        std::thread([] { logger.e("dropped"); }).join();
    }
    logger.e("kept");
    ASSERT_EQ(seen.messages.size(), 1U);
    EXPECT_EQ(seen.messages[0].text, "kept");
}

TEST(LoggingDeathTest, EmptyCallbackEndsTheProcess) {
    const auto log_to_nobody = [] {
        logging::exchange_callback(nullptr);
        logger.e("nobody listens");
    };
    EXPECT_EXIT(log_to_nobody(), testing::KilledBySignal(SIGABRT), "");
}

TEST(Logging, ThreadsLogWhileTheCallbackChanges) {
    std::atomic<unsigned> received = 0;
    const auto count = [&received](auto&&...) { ++received; };
    const logging::callback before = logging::exchange_callback(count);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int n = 0; n < 500; ++n) {
                logger.e("%d", n);
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        logging::exchange_callback(count);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    logging::exchange_callback(before);
    EXPECT_TRUE(received > 0 && received <= 2000) << received;
}

}  // namespace
