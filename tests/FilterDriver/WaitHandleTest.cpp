#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <stdexcept>

#include "FilterDriver/WaitHandle.h"
#include "Platform/Events.h"

namespace {

// Returns the index WaitAny reports, or -2 when it has not returned within the time.
int WaitWithin(WaitHandle* const handles[2], std::chrono::milliseconds limit) {
    auto result = std::async(std::launch::async, [handles] { return WaitAny(handles); });
    if (result.wait_for(limit) != std::future_status::ready) return -2;
    return result.get();
}

class WaitHandleTest : public ::testing::Test {
protected:
    void TearDown() override {
        first.Close();
        second.Close();
    }
    AutoResetEvent first;
    AutoResetEvent second;
    WaitHandle* const both[2] = {&first, &second};
};

TEST_F(WaitHandleTest, BothSignalledReportsIndexZeroAndKeepsTheSecondSet) {
    ASSERT_TRUE(first.IsValid());
    ASSERT_TRUE(second.IsValid());
    ASSERT_TRUE(Platform::SetEvent(second.Handle()));
    ASSERT_TRUE(Platform::SetEvent(first.Handle()));

    EXPECT_EQ(WaitAny(both), 0);
    EXPECT_EQ(WaitAny(both), 1);  // the second stayed signalled
}

TEST_F(WaitHandleTest, ASuccessfulWaitResetsTheEventAndASetWakesAWaitingThread) {
    // Several sets before a wait count once, as with an auto-reset event.
    ASSERT_TRUE(Platform::SetEvent(second.Handle()));
    ASSERT_TRUE(Platform::SetEvent(second.Handle()));
    EXPECT_EQ(WaitAny(both), 1);

    auto pending = std::async(std::launch::async, [this] { return WaitAny(both); });
    EXPECT_EQ(pending.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    ASSERT_TRUE(Platform::SetEvent(first.Handle()));
    ASSERT_EQ(pending.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(pending.get(), 0);
}

TEST_F(WaitHandleTest, CloseReleasesOnceAndInvalidates) {
    EXPECT_TRUE(first.Close());
    EXPECT_FALSE(first.IsValid());
    EXPECT_EQ(first.Handle(), 0u);
    EXPECT_FALSE(first.Close());
}

TEST(WaitHandle, NullHandleIsInvalidAndWaitingOnItFails) {
    WaitHandle none(0);
    EXPECT_FALSE(none.IsValid());
    EXPECT_FALSE(none.Close());

    AutoResetEvent event;
    WaitHandle* const handles[2] = {&event, &none};
    try {
        WaitAny(handles);
        ADD_FAILURE() << "a wait on a null handle returned";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "wait failed");
    }
    event.Close();
}

TEST(WaitHandle, WrappingDoesNotTakeOwnership) {
    AutoResetEvent owner;
    {
        WaitHandle wrapper(owner.Handle());
        EXPECT_TRUE(wrapper.IsValid());
        EXPECT_FALSE(wrapper.Close());
    }
    // Still usable after the wrapper is gone.
    ASSERT_TRUE(Platform::SetEvent(owner.Handle()));
    AutoResetEvent other;
    WaitHandle* const handles[2] = {&other, &owner};
    EXPECT_EQ(WaitWithin(handles, std::chrono::seconds(5)), 1);
    owner.Close();
    other.Close();
}

}  // namespace
