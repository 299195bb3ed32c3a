// SPDX-License-Identifier: Apache-2.0
// The result of a call: the first failure, and the progress.
#ifndef KESTREL_COMPANION_HINTER_OUTCOME_H
#define KESTREL_COMPANION_HINTER_OUTCOME_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>

#include "kestrel/hinter.h"

namespace kestrel::hinter {

class Outcome {
  public:
    Outcome(kst_hint_progress progress, void* context) : progress_(progress), context_(context) {}
    Outcome(const Outcome&) = delete;
    Outcome& operator=(const Outcome&) = delete;

    // Stores the first failure, and returns false.
    bool fail(int result, const std::string& error);
    bool has_failed() const { return result_ != KST_HINT_DONE; }
    int result() const { return result_; }
    const std::string& error() const { return error_; }

    // Bytes of samples to process.
    void expect(uint64_t bytes) { all_ += bytes; }
    // Reports bytes that were processed; returns false if the caller cancels.
    bool advance(uint64_t bytes);

  private:
    static constexpr uint64_t kReportEvery = 64 << 10;  // bytes

    int result_ = KST_HINT_DONE;
    std::string error_;
    kst_hint_progress progress_;
    void* context_;
    uint64_t done_ = 0, reported_ = 0, all_ = 0;
};

// Throws std::bad_alloc for null.
template <typename T>
T* keep(T* made) {
    if (made == nullptr) throw std::bad_alloc();
    return made;
}

// Copies a text into a field of a report, as much as fits.
template <size_t Size>
void put_text(char (&to)[Size], const std::string& text) {
    const size_t length = std::min(text.size(), Size - 1);
    std::memcpy(to, text.data(), length);
    to[length] = '\0';
}

}  // namespace kestrel::hinter

#endif
