// SPDX-License-Identifier: Apache-2.0
// Finds the movie box of a file that is arriving, by the headers of the boxes at its top level.
#ifndef KESTREL_COMPANION_HOSTS_MOVIE_WATCH_H
#define KESTREL_COMPANION_HOSTS_MOVIE_WATCH_H

#include <cstdint>

#include "common/box_header.h"

namespace kestrel::hosts {

class MovieWatch {
  public:
    // Looks at the boxes that have arrived since the last call, in a file of which `available`
    // bytes have. `read(data, offset, count)` reads of these bytes; it returns false when it
    // cannot. Returns true twice: when the movie box is whole, and when a box header after it has
    // arrived.
    template <typename Read>
    bool has_news(uint64_t available, Read read) {
        while (state_ != State::kDone && available - at_ >= kBoxHeader) {
            if (state_ == State::kAfterMovie) {
                state_ = State::kDone;
                return true;
            }
            uint8_t header[kLargeBoxHeader] = {};
            const uint64_t there = available - at_;
            const auto count = there < kLargeBoxHeader ? kBoxHeader : kLargeBoxHeader;
            if (!read(header, static_cast<uint32_t>(at_), count)) return false;
            const Box box = parse(header);
            if (box.is_large && count < kLargeBoxHeader) return false;
            // A box that runs to the end of the file, or a malformed one.
            if (box.size < kBoxHeader) state_ = State::kDone;
            if (box.size < kBoxHeader || box.size > there) return false;
            at_ += box.size;
            if (box.is_movie) {
                state_ = State::kAfterMovie;
                return true;
            }
        }
        return false;
    }

  private:
    enum class State { kBeforeMovie, kAfterMovie, kDone };

    struct Box {
        uint64_t size = 0;  // header included
        bool is_large = false;
        bool is_movie = false;
    };
    static Box parse(const uint8_t* raw);

    uint64_t at_ = 0;  // the next box
    State state_ = State::kBeforeMovie;
};

}  // namespace kestrel::hosts

#endif
