// SPDX-License-Identifier: Apache-2.0
// A host that closes itself.
#ifndef KESTREL_TESTS_MEMORY_HOST_H
#define KESTREL_TESTS_MEMORY_HOST_H

#include "kestrel/hosts.h"
#include "tests/support/files.h"

class MemoryHost {
  public:
    // For writing, or over bytes that outlive it.
    MemoryHost() : host_(kst_host_for_writing_memory()) {}
    explicit MemoryHost(const Bytes& bytes)
        : host_(kst_host_from_memory(bytes.data(), bytes.size())) {}
    explicit MemoryHost(Bytes&&) = delete;
    MemoryHost(const MemoryHost&) = delete;
    MemoryHost& operator=(const MemoryHost&) = delete;
    ~MemoryHost() { kst_host_close(host_); }

    kst_host* get() const { return host_; }
    KST_IOSTREAM_CALLBACK_INTERFACE* table() const { return kst_host_callbacks(host_); }
    Bytes written() const {
        size_t size = 0;
        const auto* bytes = static_cast<const uint8_t*>(kst_host_written(host_, &size));
        return {bytes, bytes + size};
    }

  private:
    kst_host* host_;
};

#endif
