#include "KinbookKit/Executor.h"

#include "KinbookKit/RunLoop.h"
#include "tests/support/ManualExecutor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kinbook {
namespace {

using namespace std::chrono_literals;

TEST(SerialQueue, RunsTasksOneAtATimeInPostedOrderOverAPool) {
    ThreadPool pool(4);
    SerialQueue queue(pool);
    std::vector<int> order; // touched only from the queue's tasks
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    for (int i = 0; i < 500; ++i) {
        queue.post([&, i] {
            if (running.fetch_add(1) != 0) {
                overlapped = true;
            }
            order.push_back(i);
            running.fetch_sub(1);
        });
    }
    queue.waitUntilIdle();
    EXPECT_FALSE(overlapped);
    ASSERT_EQ(order.size(), 500u);
    for (int i = 0; i < 500; ++i) {
        EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    }
}

TEST(SerialQueue, TasksPendingWhenTheQueueIsDestroyedStillRun) {
    ThreadPool pool(1);
    std::promise<void> gate;
    std::atomic<int> ran{0};
    {
        SerialQueue queue(pool);
        queue.post([&] { gate.get_future().wait(); });
        queue.post([&] { ++ran; });
    }
    gate.set_value();
    SerialQueue probe(pool);
    probe.post([] {});
    probe.waitUntilIdle();
    // The pool has one thread, so the probe ran after the destroyed queue's drain.
    EXPECT_EQ(ran.load(), 1);
}

TEST(ThreadPool, DelayedTaskRunsAfterReadyOnes) {
    ThreadPool pool(1);
    std::mutex mutex;
    std::vector<char> order;
    std::promise<void> done;
    pool.postAfter(20ms, [&] {
        std::lock_guard lock(mutex);
        order.push_back('d');
        done.set_value();
    });
    pool.post([&] {
        std::lock_guard lock(mutex);
        order.push_back('r');
    });
    done.get_future().wait();
    std::lock_guard lock(mutex);
    EXPECT_EQ(order, (std::vector<char>{'r', 'd'}));
}

TEST(RunInParallel, RunsEveryPartOnceSideBySideAndWaitsForAllEvenWhenTheCallersPartThrows) {
    constexpr unsigned kParts = 4;
    std::mutex mutex;
    std::vector<unsigned> ran;
    std::set<std::thread::id> threads;
    // Every part waits for all the others to start: only parts that truly
    // run at the same time get past it.
    std::atomic<unsigned> started{0};
    runInParallel(kParts, [&](unsigned part) {
        ++started;
        started.notify_all();
        for (unsigned seen = started.load(); seen < kParts; seen = started.load()) {
            started.wait(seen);
        }
        std::lock_guard lock(mutex);
        ran.push_back(part);
        threads.insert(std::this_thread::get_id());
    });
    std::sort(ran.begin(), ran.end());
    EXPECT_EQ(ran, (std::vector<unsigned>{0, 1, 2, 3}));
    EXPECT_EQ(threads.size(), kParts);
    EXPECT_TRUE(threads.contains(std::this_thread::get_id())) << "part 0 runs on the caller";

    std::atomic<bool> otherDone{false};
    EXPECT_THROW(runInParallel(2,
                               [&](unsigned part) {
                                   if (part == 0) {
                                       throw std::runtime_error("first half failed");
                                   }
                                   otherDone = true;
                               }),
                 std::runtime_error);
    EXPECT_TRUE(otherDone.load()) << "the other half finished before the error came back";
}

TEST(ManualExecutor, DelayedTasksRunInDueOrderOnlyWhenTimeAdvances) {
    testing::ManualExecutor executor;
    std::vector<int> order;
    executor.postAfter(500ms, [&] { order.push_back(2); });
    executor.postAfter(300ms, [&] {
        order.push_back(1);
        executor.postAfter(300ms, [&] { order.push_back(3); }); // due at 600 ms
    });
    executor.post([&] { order.push_back(0); });

    executor.runUntilIdle();
    EXPECT_EQ(order, std::vector<int>{0});
    executor.advance(499ms);
    EXPECT_EQ(order, (std::vector<int>{0, 1}));
    executor.advance(1ms);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
    executor.advance(100ms);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(executor.pendingCount(), 0u);
}

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
