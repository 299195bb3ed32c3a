// SPDX-License-Identifier: Apache-2.0
// Bytes to be written later: in memory, and from a limit on in a temporary file.
#ifndef KESTREL_COMPANION_PACKER_SPOOL_H
#define KESTREL_COMPANION_PACKER_SPOOL_H

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <vector>

namespace kestrel::packer {

class Spool {
  public:
    // Limit of the bytes in memory.
    static constexpr uint64_t kMaxInMemory = 32 << 20;

    explicit Spool(uint64_t max_in_memory = kMaxInMemory) : max_in_memory_(max_in_memory) {}

    uint64_t size() const { return size_; }

    // Returns false when there is no temporary file, or no space for it. May throw std::bad_alloc.
    bool append(std::span<const uint8_t> bytes);

    // Reads bytes that were appended. Returns false when the temporary file fails.
    bool read(uint64_t offset, std::span<uint8_t> to);

  private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    bool move_to_file();
    bool seek(uint64_t offset, bool to_read);

    uint64_t max_in_memory_;
    uint64_t size_ = 0;
    uint64_t file_position_ = 0;
    bool reading_ = false;         // what was done last with the file
    std::vector<uint8_t> memory_;  // all of it, until there is a file
    std::unique_ptr<std::FILE, Close> file_;
};

}  // namespace kestrel::packer

#endif
