// Watches how much the code under test asks for at once. A test program that links this file's
// source has its operator new replaced.
#ifndef KESTREL_TESTS_SUPPORT_ALLOCATION_WATCH_H
#define KESTREL_TESTS_SUPPORT_ALLOCATION_WATCH_H

#include <cstddef>

// The largest single request since it was last set.
extern size_t largest_allocation;

#endif
