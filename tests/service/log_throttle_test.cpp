// The log's bound on lines about one sender's requests, on a clock the test moves.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LogThrottle.h"

namespace configsrvc {
namespace {

using std::chrono::seconds;

TEST(LogThrottle, AdmitsSoManyLinesPerSenderAndWindowAndSumsUpTheRest) {
    std::vector<std::string> summaries;
    LogThrottle throttle([&](const std::string& line) { summaries.push_back(line); }, 3,
                         seconds(10));
    const LogThrottle::Clock::time_point start{seconds(100)};
    int admitted = 0;
    for (int i = 0; i < 50; ++i) {
        admitted += throttle.admit(1000, start + seconds(i % 9)) ? 1 : 0;
    }
    EXPECT_EQ(admitted, 3);
    EXPECT_TRUE(throttle.admit(0, start)) << "another sender has a bound of its own";
    throttle.tick(start + seconds(9));
    EXPECT_TRUE(summaries.empty()) << "the window is not over yet";
    // The next window starts with a line of the sender's: the summary of the one before first.
    EXPECT_TRUE(throttle.admit(1000, start + seconds(10)));
    EXPECT_THAT(summaries, testing::ElementsAre("47 more lines about requests from uid 1000 "
                                                "suppressed (at most 3 every 10 s)"));
    EXPECT_TRUE(throttle.admit(1000, start + seconds(11)));
    EXPECT_TRUE(throttle.admit(1000, start + seconds(12)));
    EXPECT_FALSE(throttle.admit(1000, start + seconds(13)));
    // A window that ends without a line of its sender is summed up by the tick; a sender with
    // nothing suppressed gets no summary at all.
    throttle.tick(start + seconds(25));
    throttle.flush();
    EXPECT_THAT(summaries, testing::ElementsAre(testing::_, testing::StartsWith("1 more lines ")));
}

}  // namespace
}  // namespace configsrvc
