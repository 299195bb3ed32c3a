// SPDX-License-Identifier: Apache-2.0
// A file that the ISO reader has open.
#ifndef KESTREL_TESTS_OPENED_H
#define KESTREL_TESTS_OPENED_H

#include <gtest/gtest.h>

#include "kestrel/isoff.h"
#include "tests/support/memory_host.h"

// An open file with its bytes and the host under it, and what opening it printed.
class Opened {
  public:
    explicit Opened(Bytes bytes) : bytes_(std::move(bytes)) {
        testing::internal::CaptureStderr();
        file = isoFFopen(callbacks_, "r", nullptr);
        printed = testing::internal::GetCapturedStderr();
    }
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;
    ~Opened() { isoFFclose(file); }

    iso_track* track(int n = 1) { return isoFFselect(file, nullptr, n); }

    iso_file* file;
    std::string printed;

  private:
    Bytes bytes_;
    MemoryHost host_{bytes_};
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks_ = host_.table();
};

#endif
