#include "FilterDriver/WaitHandle.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <stdexcept>

#include "Platform/Events.h"
#include "support/Thrown.h"

TEST(WaitHandle, WaitAnyReportsTheFirstSetEventAndResetsOnlyIt) {
    AutoResetEvent first, second;
    WaitHandle* const both[2] = {&first, &second};
    ASSERT_TRUE(first.IsValid() && second.IsValid());
    ASSERT_TRUE(Platform::SetEvent(second.Handle()));
    ASSERT_TRUE(Platform::SetEvent(first.Handle()));
    EXPECT_EQ(WaitAny(both), 0);
    EXPECT_EQ(WaitAny(both), 1);  // the second stayed signalled
    // Several sets before a wait count once, as with an auto-reset event.
    ASSERT_TRUE(Platform::SetEvent(second.Handle()));
    ASSERT_TRUE(Platform::SetEvent(second.Handle()));
    EXPECT_EQ(WaitAny(both), 1);
    auto pending = std::async(std::launch::async, [&] { return WaitAny(both); });
    EXPECT_EQ(pending.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    ASSERT_TRUE(Platform::SetEvent(first.Handle()));
    ASSERT_EQ(pending.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(pending.get(), 0);

    EXPECT_TRUE(first.Close());
    EXPECT_FALSE(first.IsValid());
    EXPECT_EQ(first.Handle(), 0u);
    EXPECT_FALSE(first.Close());
    second.Close();
}

TEST(WaitHandle, AWrapperOwnsNothingAndANullHandleFailsTheWait) {
    AutoResetEvent owner;
    {
        WaitHandle wrapper(owner.Handle());
        EXPECT_TRUE(wrapper.IsValid());
        EXPECT_FALSE(wrapper.Close());
    }
    ASSERT_TRUE(Platform::SetEvent(owner.Handle()));  // still usable after the wrapper is gone
    WaitHandle none(0);
    EXPECT_FALSE(none.IsValid());
    EXPECT_FALSE(none.Close());
    AutoResetEvent other;
    WaitHandle* const pair[2] = {&other, &owner};
    EXPECT_EQ(WaitAny(pair), 1);
    WaitHandle* const withNull[2] = {&owner, &none};
    EXPECT_EQ(ndtest::Thrown<std::runtime_error>([&] { WaitAny(withNull); }), "wait failed");
    owner.Close();
    other.Close();
}
