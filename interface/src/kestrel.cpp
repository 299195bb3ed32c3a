// SPDX-License-Identifier: Apache-2.0
#include "kestrel/kestrel.h"

#include <cstdlib>

#include "common/host_table.h"
#include "common/log_sources.h"
#include "interface/src/isoff/record/private.h"
#include "interface/src/mmfi/mmfiInterface.h"
#include "kestrel/kstutil.h"
#include "kestrel/version.h"

// The exported functions.

using namespace kestrel;

namespace {

constexpr uint32_t kDefaultOpenSize = 20480;
constexpr int32_t kLastStatus = 24;  // the end mark of the table

struct StatusText {
    int32_t code;
    const char* text;
};

constexpr StatusText kStatusTexts[] = {
    {0, "Success"},
    {1, "Reached end of file"},
    {2, "Some unknown failure"},
    {3, "Requested file does not exist"},
    {4, "File is corrupt"},
    {5, "Bad 3gp handle passed in"},
    {6, "Unable to allocate memory"},
    {7, "Unsupported mode string specified in Open"},
    {8, "Library is not opened for this operation"},
    {9, "Library has already been opened"},
    {10, "This operation is not supported"},
    {11, "3gp file contains more tracks than supported"},
    {12, "Hint tracks are required"},
    {13, "Invalid or NULL argument supplied"},
    {14, "Requested track does not exist"},
    {15, "Unknown/unsupported coder found"},
    {16,
     "Problem with IO Stream callback interface read - call kst_GetIOCallbackStatus for more info"},
    {17, "Data is not available in FIO buffers yet"},
    {18, "Invalid Timestamp supplied"},
    {19, "Invalid Seek Flags supplied"},
    {kLastStatus, "Invalid status value"},
};

// Opens the handle over `file`. The caller still owns the file when the result is not 0 and the
// handle variable was not set.
int32_t open_over(mm_Interface** handle_out, KST_IOSTREAM_CALLBACK_INTERFACE* callbacks,
                  const char* mode, iso_file* file) {
    auto* record = static_cast<mm_Interface*>(std::malloc(sizeof(mm_Interface)));
    if (record == nullptr) {
        isoFFclose(file);
        return KST_NO_MEMORY;
    }
    *handle_out = record;
    record->file = file;
    int32_t status = mmfi_Open(record, mode);
    // Without memory for the cursor of its hint track the file would play as another stream.
    if (status == KST_SUCCESS && file->own->lacked_memory) status = KST_NO_MEMORY;
    if (status == KST_SUCCESS) {
        kstutil_seek(callbacks, 0);
        return KST_SUCCESS;
    }
    mmfi_Close(record);
    std::free(record);
    *handle_out = nullptr;
    return status;
}

int32_t check_arguments(mm_Interface** handle_out, const KST_IOSTREAM_CALLBACK_INTERFACE* callbacks,
                        const char* mode) {
    if (handle_out == nullptr) return KST_BAD_HANDLE;
    if (!is_complete(callbacks)) return KST_BAD_ARGUMENT;
    return mode == nullptr ? int32_t{KST_BAD_MODE} : int32_t{KST_SUCCESS};
}

}  // namespace

int32_t kst_Open(mm_Interface** handle_out, KST_IOSTREAM_CALLBACK_INTERFACE* callbacks,
                 const char* mode) {
    return kst_Open2(handle_out, callbacks, mode, kDefaultOpenSize);
}

int32_t kst_Open2(mm_Interface** handle_out, KST_IOSTREAM_CALLBACK_INTERFACE* callbacks,
                  const char* mode, uint32_t) {
    // The file is opened before the arguments are checked, as hosts expect. Without memory at any
    // point the status is KST_NO_MEMORY: a file of which only a part was kept would seem damaged.
    int error = 0;
    iso_file* file = isoFFopen(callbacks, "r", &error);
    int32_t status = check_arguments(handle_out, callbacks, mode);
    const bool lacked_memory = file == nullptr || file->own->lacked_memory;
    if (status == KST_SUCCESS && lacked_memory) status = KST_NO_MEMORY;
    if (status != KST_SUCCESS) {
        isoFFclose(file);
        return status;
    }
    return open_over(handle_out, callbacks, mode, file);
}

int32_t kst_ReadChunk(mm_Interface* handle, unsigned char* buffer, uint32_t* size, bool arriving) {
    if (handle == nullptr) return KST_BAD_HANDLE;
    if (buffer == nullptr || size == nullptr) return KST_BAD_ARGUMENT;
    return mmfi_Read(handle, buffer, size, arriving);
}

int32_t kst_Close(mm_Interface** handle_in_out) {
    if (handle_in_out == nullptr) return KST_BAD_HANDLE;
    if (*handle_in_out == nullptr) return KST_SUCCESS;
    mmfi_Close(*handle_in_out);
    std::free(*handle_in_out);
    *handle_in_out = nullptr;
    return KST_SUCCESS;
}

int32_t kst_SeekTo(mm_Interface* handle, uint32_t position) {
    if (handle == nullptr) return KST_BAD_HANDLE;
    // Position 0 is KST_BAD_ARGUMENT, not KST_NOT_SUPPORTED: kept on purpose.
    return position == 0 ? KST_BAD_ARGUMENT : KST_NOT_SUPPORTED;
}

int32_t kst_GetIOCallbackStatus(mm_Interface* handle, uint32_t* status_out) {
    if (handle == nullptr) return KST_BAD_HANDLE;
    return status_out == nullptr ? KST_BAD_ARGUMENT : KST_SUCCESS;
}

uint32_t kst_Version(void) {
    return KST_VERSION_MAJOR << 16 | KST_VERSION_MINOR << 8 | KST_VERSION_PATCH;
}

const char* kst_StatusString(int32_t code) {
    for (const StatusText* row = kStatusTexts; row->code != kLastStatus; ++row) {
        if (row->code == code) return row->text;
    }
    return "Unknown status";
}

void kstutil_printData(const unsigned char* data, int size) {
    printInfo(kApiSource, data, size);
}
