// SPDX-License-Identifier: Apache-2.0
// A list of numbers, most of which follow from the previous ones.
#ifndef KESTREL_COMPANION_PACKER_NUMBER_RUNS_H
#define KESTREL_COMPANION_PACKER_NUMBER_RUNS_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>

namespace kestrel::packer {

// Holds runs in which each number is the one before plus a step (modulo 2^64), which is the same in
// all of the run. Any two numbers make a run, so that a number never takes more than 12 bytes.
class NumberRuns {
  public:
    void push_back(uint64_t number) {
        const size_t length = runs_.empty() ? 0 : size_ - runs_.back().begin;
        if (length == 1) {
            runs_.back().step = number - runs_.back().number;
        } else if (length == 0 || number != runs_.back().number + runs_.back().step * length) {
            runs_.push_back({number, 0, size_});
        }
        ++size_;
    }

    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    uint64_t front() const { return runs_.front().number; }
    uint64_t back() const { return (*this)[size_ - 1]; }
    uint64_t operator[](size_t at) const {
        const auto after =
            std::upper_bound(runs_.begin(), runs_.end(), at,
                             [](size_t wanted, const Run& run) { return wanted < run.begin; });
        const Run& run = *(after - 1);
        return run.number + run.step * (at - run.begin);
    }

  private:
    struct Run {
        uint64_t number;  // the first
        uint64_t step;
        size_t begin;  // in the list
    };
    std::deque<Run> runs_;
    size_t size_ = 0;
};

}  // namespace kestrel::packer

#endif
