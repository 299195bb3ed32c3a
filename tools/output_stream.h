// SPDX-License-Identifier: Apache-2.0
// A stream table that writes to an output of the tool, in order only.
#ifndef KESTREL_TOOLS_OUTPUT_STREAM_H
#define KESTREL_TOOLS_OUTPUT_STREAM_H

#include <exception>
#include <optional>

#include "tools/whole_output.h"

namespace tool {

class OutputStream {
  public:
    // Creates the output with the first bytes. Refuses a path that is `input`.
    OutputStream(std::string path, std::string input);
    OutputStream(const OutputStream&) = delete;
    OutputStream& operator=(const OutputStream&) = delete;

    KST_IOSTREAM_CALLBACK_INTERFACE* table() { return &table_; }

    // Shows how much was written; `progress` must outlive the object.
    void show(Progress& progress) { progress_ = &progress; }

    // Refuses more bytes.
    void refuse() { refuses_ = true; }

    // Completes the output. Throws the error that ended writing. Removes an output that is not
    // completed, which could be mistaken for a whole one.
    void finish();

    // Throws the error that ended writing, if there is one.
    void rethrow_failure() const;

  private:
    static OutputStream& self(void* context) { return *static_cast<OutputStream*>(context); }
    static uint32_t get_offset(void* context, uint32_t* offset);
    static uint32_t seek(void* context, uint32_t offset);
    static uint32_t read(void* context, void* data, uint32_t* count, int32_t offset);
    static uint32_t write(void* context, const void* data, uint32_t count, int32_t offset);
    static uint32_t size(void* context, uint32_t* size);
    static uint32_t is_eof(void* context);
    static uint32_t index_read(void* context, void* data, uint32_t offset, uint32_t count,
                               uint32_t* bytes_read);
    static uint32_t advance(void* context, uint32_t offset);
    static uint32_t check_status(void* context, uint32_t* result, uint32_t status);

    uint32_t written() const;
    void take(std::span<const uint8_t> bytes);

    std::string path_;
    std::string input_;
    std::optional<WholeOutput> output_;
    Progress* progress_ = nullptr;
    bool refuses_ = false;
    std::exception_ptr failure_;
    KST_IOSTREAM_CALLBACK_INTERFACE table_;
};

}  // namespace tool

#endif
