#include "KinbookKit/RunLoop.h"

#include <gtest/gtest.h>

#include <thread>

namespace kinbook {
namespace {

TEST(RunLoopTest, RunsTasksFromAnyThreadOnItsOwnInOrderUntilDone) {
    RunLoop loop;
    std::vector<int> ran;
    const auto self = std::this_thread::get_id();
    bool allOnLoop = true;
    std::thread other([&] {
        for (int i = 0; i < 3; ++i) {
            loop.post([&, i] {
                allOnLoop = allOnLoop && std::this_thread::get_id() == self;
                ran.push_back(i);
            });
        }
    });
    loop.runUntil([&] { return ran.size() == 3; });
    other.join();
    EXPECT_EQ(ran, (std::vector<int>{0, 1, 2}));
    EXPECT_TRUE(allOnLoop);
}

TEST(RunLoopTest, ADelayedTaskWaitsItsTurnAndRunPendingDoesNotWaitForIt) {
    RunLoop loop;
    std::vector<std::string> ran;
    // Long enough that a busy machine still runs the pending task well
    // before the delayed one falls due.
    loop.postAfter(std::chrono::milliseconds(250), [&] { ran.push_back("later"); });
    loop.post([&] { ran.push_back("now"); });
    loop.runPending();
    EXPECT_EQ(ran, std::vector<std::string>{"now"});
    loop.runUntil([&] { return ran.size() == 2; });
    EXPECT_EQ(ran, (std::vector<std::string>{"now", "later"}));
}

} // namespace
} // namespace kinbook
