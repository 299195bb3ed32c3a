// SPDX-License-Identifier: Apache-2.0
// Finds the movie box of a file that is arriving, by the headers of the boxes at its top level.
#ifndef KESTREL_COMPANION_HOSTS_MOVIE_WATCH_H
#define KESTREL_COMPANION_HOSTS_MOVIE_WATCH_H

#include <cstdint>

namespace kestrel::hosts {

class MovieWatch {
  public:
    // Looks at what has arrived since the last call, `available` bytes in all. `read(data, offset,
    // count)` reads of them; it returns false when it cannot. Returns true in two calls: in the
    // one that finds the movie box whole, and in the one that finds a box header after it.
    template <typename Read>
    bool has_news(uint64_t available, Read read) {
        while (state_ != State::kDone && available - at_ >= kShortHeader) {
            if (state_ == State::kAfterMovie) {
                state_ = State::kDone;
                return true;
            }
            uint8_t header[kLongHeader] = {};
            const uint64_t there = available - at_;
            const auto count = there < kLongHeader ? kShortHeader : kLongHeader;
            if (!read(header, static_cast<uint32_t>(at_), count)) return false;
            const Box box = parse(header);
            if (box.is_long && count < kLongHeader) return false;
            // One that reaches to the end of the file, or is malformed.
            if (box.size < kShortHeader) state_ = State::kDone;
            if (box.size < kShortHeader || box.size > there) return false;
            at_ += box.size;
            if (box.is_movie) {
                state_ = State::kAfterMovie;
                return true;
            }
        }
        return false;
    }

  private:
    static constexpr uint32_t kShortHeader = 8;
    static constexpr uint32_t kLongHeader = 16;
    enum class State { kBeforeMovie, kAfterMovie, kDone };

    struct Box {
        uint64_t size = 0;  // header included
        bool is_long = false;
        bool is_movie = false;
    };
    static Box parse(const uint8_t* header);

    uint64_t at_ = 0;  // the next box
    State state_ = State::kBeforeMovie;
};

}  // namespace kestrel::hosts

#endif
