// SPDX-License-Identifier: Apache-2.0
#include "kestrel/hosts.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "companion/hosts/movie_watch.h"

namespace {

constexpr uint64_t kMaxBytes = std::numeric_limits<uint32_t>::max();

// A source of bytes. read() is called for available bytes only.
class Source {
  public:
    Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
    virtual ~Source() = default;

    virtual bool arriving() const { return false; }
    virtual bool complete() const { return true; }
    virtual uint32_t available() const = 0;
    // Stores the whole length. Returns false while it is unknown.
    virtual bool length(uint32_t& size) const {
        size = available();
        return true;
    }
    // Returns false with errno set.
    virtual bool read(void* data, uint32_t offset, uint32_t count) = 0;
    virtual int wait() { return KST_HOST_COMPLETE; }
    virtual bool write(const void*, uint32_t, uint32_t) { return false; }
    virtual const std::vector<uint8_t>* written() const { return nullptr; }
};

// Keeps a few recent blocks, because a player alternates between many small reads of packet
// descriptions and of media.
class FileSource final : public Source {
  public:
    FileSource(int fd, uint32_t size) : fd_(fd), size_(size) {}
    ~FileSource() override { close(fd_); }

    uint32_t available() const override { return size_; }

    bool read(void* data, uint32_t offset, uint32_t count) override {
        auto* to = static_cast<uint8_t*>(data);
        while (count > 0) {
            const uint32_t into = offset % kBlockSize;
            const uint32_t piece = std::min(count, kBlockSize - into);
            if (into == 0 && piece == kBlockSize) {
                if (!read_file(to, offset, piece)) return false;
            } else {
                const Block* block = block_at(offset - into);
                if (block != nullptr) {
                    std::memcpy(to, block->bytes.data() + into, piece);
                } else if (!read_file(to, offset, piece)) {  // a part of the block may be there
                    return false;
                }
            }
            to += piece;
            offset += piece;
            count -= piece;
        }
        return true;
    }

  private:
    static constexpr uint32_t kBlockSize = 65536;

    struct Block {
        std::vector<uint8_t> bytes;
        uint32_t offset = 0;
        uint64_t last_use = 0;  // 0: holds nothing
    };

    bool read_file(uint8_t* to, uint32_t offset, uint32_t count) const {
        while (count > 0) {
            const ssize_t got = pread(fd_, to, count, static_cast<off_t>(offset));
            if (got < 0 && errno == EINTR) continue;
            if (got == 0) errno = EIO;  // the file was truncated meanwhile
            if (got <= 0) return false;
            to += got;
            offset += static_cast<uint32_t>(got);
            count -= static_cast<uint32_t>(got);
        }
        return true;
    }

    // Returns the block that begins at `offset`; null when it cannot be read.
    const Block* block_at(uint32_t offset) {
        Block* oldest = &blocks_[0];
        for (Block& block : blocks_) {
            if (block.last_use != 0 && block.offset == offset) {
                block.last_use = ++uses_;
                return &block;
            }
            if (block.last_use < oldest->last_use) oldest = &block;
        }
        oldest->last_use = 0;
        try {
            oldest->bytes.resize(std::min(kBlockSize, size_ - offset));
        } catch (const std::bad_alloc&) {
            errno = ENOMEM;
            return nullptr;
        }
        const auto count = static_cast<uint32_t>(oldest->bytes.size());
        if (!read_file(oldest->bytes.data(), offset, count)) return nullptr;
        oldest->offset = offset;
        oldest->last_use = ++uses_;
        return oldest;
    }

    int fd_;
    uint32_t size_;
    uint64_t uses_ = 0;
    std::array<Block, 4> blocks_;
};

class MemorySource final : public Source {
  public:
    MemorySource(const void* data, uint32_t size)
        : data_(static_cast<const uint8_t*>(data)), size_(size) {}

    uint32_t available() const override { return size_; }

    bool read(void* data, uint32_t offset, uint32_t count) override {
        std::memcpy(data, data_ + offset, count);
        fetch_ahead(offset + count, count);
        return true;
    }

  private:
    // A player continues near its last read, so the bytes there are prefetched while the player
    // works. The amount grows with the bytes read.
    void fetch_ahead(uint32_t from, uint32_t count) {
        constexpr uint32_t kMaxAhead = 4096;
        constexpr uint32_t kLine = 64;
        const uint32_t ahead = std::min(kMaxAhead, std::min(count, kMaxAhead) * 4);
        const uint64_t until = from + std::min(ahead, size_ - from);
        uint64_t at = fetched_ > from && fetched_ <= until ? fetched_ : from;
        for (; at < until; at += kLine)
            __builtin_prefetch(data_ + at);
        fetched_ = at;
    }

    const uint8_t* data_;
    uint32_t size_;
    uint64_t fetched_ = 0;  // end of the prefetched bytes
};

class WritableSource final : public Source {
  public:
    uint32_t available() const override { return static_cast<uint32_t>(bytes_.size()); }
    bool read(void* data, uint32_t offset, uint32_t count) override {
        std::memcpy(data, bytes_.data() + offset, count);
        return true;
    }
    bool write(const void* data, uint32_t offset, uint32_t count) override {
        const uint64_t end = uint64_t{offset} + count;
        if (end > kMaxBytes) return false;
        try {
            if (end > bytes_.size()) bytes_.resize(static_cast<size_t>(end));
        } catch (const std::exception&) {
            return false;
        }
        if (count > 0) std::memcpy(bytes_.data() + offset, data, count);
        return true;
    }
    const std::vector<uint8_t>* written() const override { return &bytes_; }

  private:
    std::vector<uint8_t> bytes_;
};

// Reveals another source step by step.
class GrowingSource final : public Source {
  public:
    GrowingSource(std::unique_ptr<Source> whole, uint32_t step)
        : whole_(std::move(whole)), step_(std::max(step, uint32_t{1})) {}

    bool arriving() const override { return true; }
    bool complete() const override { return revealed_ == whole_->available(); }
    uint32_t available() const override { return revealed_; }
    bool length(uint32_t& size) const override { return whole_->length(size); }
    bool read(void* data, uint32_t offset, uint32_t count) override {
        return whole_->read(data, offset, count);
    }
    int wait() override {
        if (complete()) return KST_HOST_COMPLETE;
        revealed_ += std::min(step_, whole_->available() - revealed_);
        return KST_HOST_MORE;
    }

  private:
    std::unique_ptr<Source> whole_;
    uint32_t step_;
    uint32_t revealed_ = 0;
};

class PipeSource final : public Source {
  public:
    explicit PipeSource(int fd) : fd_(fd) {}

    bool arriving() const override { return true; }
    bool complete() const override { return ended_; }
    uint32_t available() const override { return static_cast<uint32_t>(bytes_.size()); }
    bool length(uint32_t& size) const override {
        size = available();
        return ended_;
    }
    bool read(void* data, uint32_t offset, uint32_t count) override {
        std::memcpy(data, bytes_.data() + offset, count);
        return true;
    }
    int wait() override;

  private:
    static constexpr size_t kPiece = 65536;

    int fd_;
    bool ended_ = false;
    std::vector<uint8_t> bytes_;
};

int PipeSource::wait() {
    if (ended_) return KST_HOST_COMPLETE;
    const size_t had = bytes_.size();
    try {
        bytes_.resize(had + kPiece);
    } catch (const std::exception&) {  // no memory, or more than a vector can hold
        errno = ENOMEM;
        return KST_HOST_FAULT;
    }
    ssize_t got;
    do {
        pollfd ready{fd_, POLLIN, 0};
        static_cast<void>(poll(&ready, 1, -1));  // waits for a non-blocking pipe too
        got = ::read(fd_, bytes_.data() + had, kPiece);
    } while (got < 0 && (errno == EINTR || errno == EAGAIN));
    bytes_.resize(had + static_cast<size_t>(std::max<ssize_t>(got, 0)));
    if (got < 0) return KST_HOST_FAULT;
    if (bytes_.size() > kMaxBytes) {
        bytes_.resize(had);
        errno = EFBIG;
        return KST_HOST_FAULT;
    }
    ended_ = got == 0;
    return ended_ ? KST_HOST_COMPLETE : KST_HOST_MORE;
}

}  // namespace

struct kst_host {
    explicit kst_host(std::unique_ptr<Source> from) : source(std::move(from)) {}

    std::unique_ptr<Source> source;
    uint32_t position = 0;
    uint32_t used = 0;
    int failure = 0;  // errno of a permanent failure
    kestrel::hosts::MovieWatch movie;
    KST_IOSTREAM_CALLBACK_INTERFACE callbacks{};

    // Reads the available part of `count` bytes at `offset`. While more can arrive, a read that is
    // not fully available is not-yet and reads nothing; after the end it is short.
    uint32_t read_at(void* data, uint32_t offset, uint32_t count, uint32_t& got) {
        got = 0;
        const uint32_t there = source->available();
        const uint32_t readable = offset < there ? std::min(count, there - offset) : 0;
        if (readable < count && !source->complete()) return KST_HOST_NOT_YET;
        if (readable > 0 && !source->read(data, offset, readable)) {
            failure = errno;
            return KST_HOST_FAILED;
        }
        got = readable;
        if (readable > 0) used = std::max(used, offset + readable);
        return KST_HOST_OK;
    }

    int wait() {
        const int waited = source->wait();
        if (waited == KST_HOST_FAULT) failure = errno;
        return waited;
    }
};

namespace {

kst_host& host_of(void* context) {
    return *static_cast<kst_host*>(context);
}

uint32_t get_offset(void* context, uint32_t* offset) {
    *offset = host_of(context).position;
    return KST_HOST_OK;
}

uint32_t seek(void* context, uint32_t offset) {
    host_of(context).position = offset;
    return KST_HOST_OK;
}

uint32_t seek_n_read(void* context, void* data, uint32_t* count, int32_t offset) {
    kst_host& host = host_of(context);
    const uint32_t from = offset == -1 ? host.position : static_cast<uint32_t>(offset);
    uint32_t got = 0;
    const uint32_t status = host.read_at(data, from, *count, got);
    *count = got;
    if (status == KST_HOST_OK) host.position = from + got;
    return status;
}

uint32_t seek_n_write(void* context, const void* data, uint32_t count, int32_t offset) {
    kst_host& host = host_of(context);
    const uint32_t to = offset == -1 ? host.position : static_cast<uint32_t>(offset);
    if (!host.source->write(data, to, count)) return KST_HOST_FAILED;
    host.position = to + count;
    return KST_HOST_OK;
}

uint32_t get_stream_size(void* context, uint32_t* size) {
    return host_of(context).source->length(*size) ? KST_HOST_OK : KST_HOST_NOT_YET;
}

uint32_t is_eof(void* context) {
    const kst_host& host = host_of(context);
    return host.source->complete() && host.position >= host.source->available() ? 1 : 0;
}

uint32_t index_read(void* context, void* data, uint32_t offset, uint32_t count,
                    uint32_t* bytes_read) {
    return host_of(context).read_at(data, offset, count, *bytes_read);
}

uint32_t advance_read(void*, uint32_t) {
    return KST_HOST_OK;
}

uint32_t check_status(void*, uint32_t* result, uint32_t status) {
    *result = status == KST_HOST_NOT_YET ? uint32_t{KST_IO_NOT_YET} : status;
    return KST_HOST_OK;
}

// Makes a host for a source, with a filled table; null with errno set without memory.
template <typename MakeSource>
kst_host* make_host(MakeSource make_source) {
    try {
        auto host = std::make_unique<kst_host>(make_source());
        host->callbacks = {host.get(),      get_offset, seek,       seek_n_read,  seek_n_write,
                           get_stream_size, is_eof,     index_read, advance_read, check_status};
        return host.release();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return nullptr;
    }
}

// A descriptor that is closed unless it is released.
class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd_ >= 0) close(fd_);
    }
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

  private:
    int fd_;
};

// Passes `wrap` a function that makes the source of the file at `path`; returns null with errno set
// when the file cannot be read.
template <typename Wrap>
kst_host* open_path(const char* path, Wrap wrap) {
    Descriptor fd(open(path, O_RDONLY | O_CLOEXEC));
    struct stat about {};
    if (fd.get() < 0 || fstat(fd.get(), &about) != 0) return nullptr;
    if (S_ISDIR(about.st_mode)) {
        errno = EISDIR;
        return nullptr;
    }
    if (static_cast<uint64_t>(about.st_size) > kMaxBytes) {
        errno = EFBIG;
        return nullptr;
    }
    return make_host([&] {
        auto file = std::make_unique<FileSource>(fd.get(), static_cast<uint32_t>(about.st_size));
        fd.release();
        return wrap(std::move(file));
    });
}

// Returns false with errno set for bytes that cannot be served.
bool is_memory(const void* data, size_t size) {
    errno = size > kMaxBytes ? EFBIG : EINVAL;
    return size <= kMaxBytes && (data != nullptr || size == 0);
}

}  // namespace

kst_host* kst_host_from_file(const char* path) {
    return open_path(path, [](std::unique_ptr<Source> file) { return file; });
}

kst_host* kst_host_from_growing_file(const char* path, uint32_t step) {
    return open_path(path, [step](std::unique_ptr<Source> file) {
        return std::make_unique<GrowingSource>(std::move(file), step);
    });
}

kst_host* kst_host_from_memory(const void* data, size_t size) {
    if (!is_memory(data, size)) return nullptr;
    return make_host(
        [=] { return std::make_unique<MemorySource>(data, static_cast<uint32_t>(size)); });
}

kst_host* kst_host_for_writing_memory(void) {
    return make_host([] { return std::make_unique<WritableSource>(); });
}

kst_host* kst_host_from_growing_memory(const void* data, size_t size, uint32_t step) {
    if (!is_memory(data, size)) return nullptr;
    return make_host([=] {
        return std::make_unique<GrowingSource>(
            std::make_unique<MemorySource>(data, static_cast<uint32_t>(size)), step);
    });
}

kst_host* kst_host_from_pipe(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0) return nullptr;
    if ((flags & O_ACCMODE) == O_WRONLY) {
        errno = EBADF;
        return nullptr;
    }
    return make_host([=] { return std::make_unique<PipeSource>(fd); });
}

void kst_host_close(kst_host* host) {
    delete host;
}

KST_IOSTREAM_CALLBACK_INTERFACE* kst_host_callbacks(kst_host* host) {
    return &host->callbacks;
}

const void* kst_host_written(const kst_host* host, size_t* size) {
    const auto* written = host->source->written();
    *size = written != nullptr ? written->size() : 0;
    return written != nullptr ? written->data() : nullptr;
}

int kst_host_is_arriving(const kst_host* host) {
    return host->source->arriving() ? 1 : 0;
}

int kst_host_is_complete(const kst_host* host) {
    return host->source->complete() ? 1 : 0;
}

int kst_host_failed(const kst_host* host) {
    return host->failure;
}

int kst_host_wait(kst_host* host) {
    return host->wait();
}

int kst_host_wait_to_open(kst_host* host) {
    kst_host_rewind(host);
    Source& source = *host->source;
    const uint64_t had = source.available();
    for (;;) {
        const int waited = host->wait();
        if (waited != KST_HOST_MORE) return waited;
        const uint64_t has = source.available();
        const bool news = host->movie.has_news(
            has, [&](void* to, uint32_t at, uint32_t count) { return source.read(to, at, count); });
        if (news || has >= had + had / 2) return KST_HOST_MORE;
    }
}

void kst_host_rewind(kst_host* host) {
    host->position = 0;
}

uint32_t kst_host_bytes_available(const kst_host* host) {
    return host->source->available();
}

uint32_t kst_host_bytes_used(const kst_host* host) {
    return host->used;
}
