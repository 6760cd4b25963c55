#include "FilterDriver/WaitHandle.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <stdexcept>

#include "Platform/Events.h"
#include "support/Thrown.h"

TEST(WaitHandle, WaitAnyReportsTheFirstSetEventAndResetsOnlyItAndAWrapperOwnsNothing) {
    AutoResetEvent first, second;
    WaitHandle* const both[2] = {&first, &second};
    ASSERT_TRUE(first.IsValid() && second.IsValid());
    // Several sets before a wait count once, as with an auto-reset event.
    for (const AutoResetEvent* event : {&second, &second, &first}) ASSERT_TRUE(Platform::SetEvent(event->Handle()));
    EXPECT_EQ(WaitAny(both), 0);
    EXPECT_EQ(WaitAny(both), 1);  // the second stayed signalled
    auto pending = std::async(std::launch::async, [&] { return WaitAny(both); });
    EXPECT_EQ(pending.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    ASSERT_TRUE(Platform::SetEvent(first.Handle()));
    ASSERT_EQ(pending.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(pending.get(), 0);

    EXPECT_TRUE(first.Close());
    EXPECT_FALSE(first.IsValid() || first.Close());

    // A wrapper owns nothing; a null handle fails the wait.
    AutoResetEvent other;
    {
        WaitHandle wrapper(second.Handle());
        EXPECT_TRUE(wrapper.IsValid());
        EXPECT_FALSE(wrapper.Close());
    }
    ASSERT_TRUE(Platform::SetEvent(second.Handle()));  // still usable after the wrapper is gone
    WaitHandle none(0);
    EXPECT_FALSE(none.IsValid() || none.Close());
    WaitHandle* const pair[2] = {&other, &second};
    EXPECT_EQ(WaitAny(pair), 1);
    WaitHandle* const withNull[2] = {&second, &none};
    EXPECT_EQ(ndtest::Thrown<std::runtime_error>([&] { WaitAny(withNull); }), "wait failed");
    second.Close();
    other.Close();
}
