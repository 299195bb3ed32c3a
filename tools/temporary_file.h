// SPDX-License-Identifier: Apache-2.0
// Files without a name, which are removed when the command ends.
#ifndef KESTREL_TOOLS_TEMPORARY_FILE_H
#define KESTREL_TOOLS_TEMPORARY_FILE_H

#include "tools/descriptor.h"
#include "tools/support.h"

namespace tool {

// Opens a file in the folder for temporary files; nothing on failure.
Descriptor temporary_file();

// The bytes that are free in that folder.
uint64_t temporary_space();

// Serves a temporary file; null when that fails.
Host open_temporary(const Descriptor& file);

// A stream table that writes to a descriptor, in order.
class DescriptorStream {
  public:
    explicit DescriptorStream(int descriptor)
        : output_(Descriptor(dup(descriptor)), "temporary file"), table_{this,    get_offset,
                                                                         seek,    read,
                                                                         write,   length,
                                                                         is_eof,  index_read,
                                                                         advance, check_status} {}

    KST_IOSTREAM_CALLBACK_INTERFACE* table() { return &table_; }
    void finish() { output_.finish(); }

  private:
    static DescriptorStream& self(void* context) {
        return *static_cast<DescriptorStream*>(context);
    }
    static uint32_t get_offset(void* context, uint32_t* offset) {
        *offset = static_cast<uint32_t>(self(context).output_.written());
        return KST_HOST_OK;
    }
    static uint32_t seek(void* context, uint32_t offset) {
        return offset == self(context).output_.written() ? KST_HOST_OK : KST_HOST_FAILED;
    }
    static uint32_t read(void*, void*, uint32_t* count, int32_t) {
        *count = 0;
        return KST_HOST_OK;
    }
    static uint32_t write(void* context, const void* data, uint32_t count, int32_t) {
        try {
            self(context).output_.write({static_cast<const uint8_t*>(data), count});
            return KST_HOST_OK;
        } catch (const Error&) {
            return KST_HOST_FAILED;
        }
    }
    static uint32_t length(void* context, uint32_t* size) { return get_offset(context, size); }
    static uint32_t is_eof(void*) { return 1; }
    static uint32_t index_read(void*, void*, uint32_t, uint32_t, uint32_t* bytes_read) {
        *bytes_read = 0;
        return KST_HOST_OK;
    }
    static uint32_t advance(void*, uint32_t) { return KST_HOST_OK; }
    static uint32_t check_status(void*, uint32_t* result, uint32_t status) {
        *result = status;
        return KST_HOST_OK;
    }

    Output output_;
    KST_IOSTREAM_CALLBACK_INTERFACE table_;
};

}  // namespace tool

#endif
