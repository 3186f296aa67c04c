#include "Kinbook/QtMainExecutor.h"

#include "tests/app/AppTestSupport.h"

#include <gtest/gtest.h>

#include <QThread>
#include <memory>
#include <vector>

namespace kinbook {
namespace {

using testing::runEventsUntil;

TEST(QtMainExecutor, TasksPostedFromABackgroundThreadRunOnTheGuiThreadInOrder) {
    QtMainExecutor executor;
    ThreadPool pool(1);
    std::vector<int> order;
    std::vector<bool> onGuiThread;
    QThread* gui = QThread::currentThread();

    pool.post([&] {
        for (int i = 0; i < 5; ++i) {
            executor.post([&, i] {
                order.push_back(i);
                onGuiThread.push_back(QThread::currentThread() == gui);
            });
        }
    });

    ASSERT_TRUE(runEventsUntil([&] { return order.size() == 5; }));
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(onGuiThread, std::vector<bool>(5, true));
}

TEST(QtMainExecutor, ADelayedTaskFromABackgroundThreadRunsOnTheGuiThreadAfterImmediateOnes) {
    QtMainExecutor executor;
    ThreadPool pool(1);
    std::vector<std::string> order;
    bool delayedOnGuiThread = false;
    QThread* gui = QThread::currentThread();

    pool.post([&] {
        executor.postAfter(std::chrono::milliseconds(30), [&] {
            order.push_back("delayed");
            delayedOnGuiThread = QThread::currentThread() == gui;
        });
        executor.post([&] { order.push_back("now"); });
    });

    ASSERT_TRUE(runEventsUntil([&] { return order.size() == 2; }));
    EXPECT_EQ(order, (std::vector<std::string>{"now", "delayed"}));
    EXPECT_TRUE(delayedOnGuiThread);
}

TEST(QtMainExecutor, TasksStillPendingWhenItIsDestroyedAreDropped) {
    auto ran = std::make_shared<int>(0);
    {
        QtMainExecutor executor;
        executor.post([ran] { ++*ran; });
        executor.postAfter(std::chrono::milliseconds(1), [ran] { ++*ran; });
    }
    // A task queued after them shows that the queue has been run past them.
    bool after = false;
    QtMainExecutor later;
    later.postAfter(std::chrono::milliseconds(20), [&] { after = true; });
    ASSERT_TRUE(runEventsUntil([&] { return after; }));
    EXPECT_EQ(*ran, 0);
}

} // namespace
} // namespace kinbook
