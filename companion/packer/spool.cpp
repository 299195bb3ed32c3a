// SPDX-License-Identifier: Apache-2.0
#include "companion/packer/spool.h"

#include <sys/types.h>

#include <algorithm>

namespace kestrel::packer {

bool Spool::move_to_file() {
    file_.reset(std::tmpfile());
    if (file_ == nullptr) return false;
    // fwrite takes no null pointer, not even for nothing.
    const size_t held = memory_.size();
    if (held > 0 && std::fwrite(memory_.data(), 1, held, file_.get()) != held) return false;
    file_position_ = memory_.size();
    std::vector<uint8_t>().swap(memory_);
    return true;
}

// Moves the file to a position. The C library requires a seek between writing and reading.
bool Spool::seek(uint64_t offset, bool to_read) {
    if (offset != file_position_ || to_read != reading_) {
        if (fseeko(file_.get(), static_cast<off_t>(offset), SEEK_SET) != 0) return false;
    }
    reading_ = to_read;
    return true;
}

bool Spool::append(std::span<const uint8_t> bytes) {
    if (bytes.empty()) return true;
    if (file_ == nullptr && size_ + bytes.size() <= max_in_memory_) {
        memory_.insert(memory_.end(), bytes.begin(), bytes.end());
        size_ += bytes.size();
        return true;
    }
    if (file_ == nullptr && !move_to_file()) return false;
    if (!seek(size_, false)) return false;
    if (std::fwrite(bytes.data(), 1, bytes.size(), file_.get()) != bytes.size()) return false;
    size_ += bytes.size();
    file_position_ = size_;
    return true;
}

bool Spool::read(uint64_t offset, std::span<uint8_t> to) {
    if (offset > size_ || to.size() > size_ - offset) return false;
    if (file_ == nullptr) {
        std::copy_n(memory_.begin() + static_cast<std::ptrdiff_t>(offset), to.size(), to.begin());
        return true;
    }
    if (!seek(offset, true)) return false;
    file_position_ = offset + to.size();
    return std::fread(to.data(), 1, to.size(), file_.get()) == to.size();
}

}  // namespace kestrel::packer
