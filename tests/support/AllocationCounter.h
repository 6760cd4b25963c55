#pragma once
// Counts heap allocations: include this in exactly one file of a test program, which
// then replaces the global allocation functions of that program.
#include <atomic>
#include <cstdlib>
#include <new>

#include "support/AllocationScope.h"

namespace ndtest {

inline std::atomic<bool> countingAllocations{false};
inline std::atomic<size_t> allocationCount{0};

// How many allocations `action` makes.
template <typename Action>
size_t AllocationsOf(Action&& action) {
    allocationCount = 0;
    countingAllocations = true;
    action();
    countingAllocations = false;
    return allocationCount;
}

inline void* CountedAllocation(std::size_t size, std::size_t align = 0) {
    if (countingAllocations.load(std::memory_order_relaxed) && harnessDepth == 0) {
        allocationCount.fetch_add(1, std::memory_order_relaxed);
    }
    void* p = align == 0 ? std::malloc(size == 0 ? 1 : size)
                         : std::aligned_alloc(align, (size + align - 1) / align * align);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}

}  // namespace ndtest

void* operator new(std::size_t size) { return ndtest::CountedAllocation(size); }
void* operator new[](std::size_t size) { return ndtest::CountedAllocation(size); }
void* operator new(std::size_t size, std::align_val_t a) { return ndtest::CountedAllocation(size, std::size_t(a)); }
void* operator new[](std::size_t size, std::align_val_t a) { return ndtest::CountedAllocation(size, std::size_t(a)); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size == 0 ? 1 : size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size == 0 ? 1 : size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
