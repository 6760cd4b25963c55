#pragma once
// Marks allocations that the test harness makes (injecting frames, recording what was
// sent) so that AllocationCounter leaves them out: only the code under test counts.
namespace ndtest {

inline thread_local int harnessDepth = 0;

struct HarnessScope {
    HarnessScope() { ++harnessDepth; }
    ~HarnessScope() { --harnessDepth; }
    HarnessScope(const HarnessScope&) = delete;
    HarnessScope& operator=(const HarnessScope&) = delete;
};

}  // namespace ndtest
