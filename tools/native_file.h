// SPDX-License-Identifier: Apache-2.0
// Reading native streams from files.
#ifndef KESTREL_TOOLS_NATIVE_FILE_H
#define KESTREL_TOOLS_NATIVE_FILE_H

#include <optional>
#include <span>
#include <string>

#include "native/stream/declared_extent.h"
#include "native/stream/native_walk.h"
#include "tools/support.h"

namespace tool {

struct WalkedFile {
    uint64_t bytes = 0;  // of the file
    std::optional<kestrel::stream::Damage> damage;
    bool is_fault = false;  // the damage: of the stream as a whole, with the end as its place
    std::string lacks;      // "2 packets are missing"; empty for nothing
};

// Checks a native stream that is fed in pieces while a sink takes it.
class StreamCheck {
  public:
    explicit StreamCheck(kestrel::stream::RecordSink& sink) : extent_(sink), walk_(extent_) {}

    void feed(std::span<const uint8_t> piece);
    // Ends the stream. Prints what it may lack, if no damage was found.
    void finish(const std::string& path);
    const WalkedFile& walked() const { return walked_; }

  private:
    template <typename Step>
    void check(Step step);

    WalkedFile walked_;
    kestrel::stream::DeclaredExtent extent_;
    kestrel::stream::NativeWalk walk_;
};

// "2 packets are missing, 1 packet is malformed"; empty for none.
std::string lacks_text(uint64_t missing, uint64_t malformed, const char* unit);

// Takes nothing, of a stream that is only checked.
class NoSink final : public kestrel::stream::RecordSink {
    bool wants_records() const override { return false; }
};

// Walks a native stream, from standard input for "-", to its end or to the first damaged place.
WalkedFile walk_file(const std::string& path, kestrel::stream::RecordSink& sink);

// "FILE: damaged from byte N on: REASON" and more.
Error damage_error(const std::string& file, const kestrel::stream::Damage& damage,
                   const std::string& more = "");
// "FILE: REASON" and more, where the stream as a whole has a fault; else as above.
Error damage_error(const std::string& file, const WalkedFile& walked, const std::string& more = "");

}  // namespace tool

#endif
