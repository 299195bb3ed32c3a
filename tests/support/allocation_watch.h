// SPDX-License-Identifier: Apache-2.0
// Watches and upsets the memory of the code under test: how much it asks for, and what becomes of
// it when an allocation fails. For programs made with watch_allocations() in tests/CMakeLists.txt,
// whose malloc, calloc, realloc, free and operator new go through here.
#ifndef KESTREL_TESTS_SUPPORT_ALLOCATION_WATCH_H
#define KESTREL_TESTS_SUPPORT_ALLOCATION_WATCH_H

#include <cstddef>
#include <cstdint>
#include <utility>

// What was asked for since it was made. One at a time.
class AllocationWatch {
  public:
    AllocationWatch();
    AllocationWatch(const AllocationWatch&) = delete;
    AllocationWatch& operator=(const AllocationWatch&) = delete;

    size_t largest() const;  // single request
    size_t peak() const;     // bytes held at once, on top of those at the start
};

// Has allocations fail, but only while it is armed.
class AllocationFault {
  public:
    // Of the allocations of at least `smallest` bytes that of the number fails, from 0, and with
    // `for_good` all after it.
    AllocationFault(int failing, bool for_good, size_t smallest = 0)
        : failing_(failing), for_good_(for_good), smallest_(smallest) {}
    AllocationFault(const AllocationFault&) = delete;
    AllocationFault& operator=(const AllocationFault&) = delete;

    // Runs calls of the library.
    template <typename Call>
    auto during(Call call) {
        const Armed armed(*this);
        return call();
    }
    bool reached() const { return calls_ > failing_; }
    void repair() { repaired_ = true; }
    bool fails(size_t size);  // asked by the allocation functions

    class Armed {
      public:
        explicit Armed(AllocationFault& fault);
        Armed(const Armed&) = delete;
        Armed& operator=(const Armed&) = delete;
        ~Armed();
    };

  private:
    int failing_;
    bool for_good_;
    size_t smallest_;
    bool repaired_ = false;
    int calls_ = 0;
};

// Runs `work` with a fault at its first allocation, then at its second, and so on until it has none
// of that number; once alone and once for good. Returns how many faults were tried.
template <typename Work>
int with_each_allocation_failing(Work work) {
    int tried = 0;
    for (const bool for_good : {false, true}) {
        for (int failing = 0;; ++failing, ++tried) {
            AllocationFault fault(failing, for_good);
            work(fault);
            if (!fault.reached()) break;
        }
    }
    return tried;
}

#endif
