// SPDX-License-Identifier: Apache-2.0
#include "tools/output_stream.h"

namespace tool {

OutputStream::OutputStream(std::string path, std::string input)
    : path_(std::move(path)), input_(std::move(input)), table_{this,        get_offset, seek,
                                                               read,        write,      size,
                                                               is_eof,      index_read, advance,
                                                               check_status} {}

uint32_t OutputStream::written() const {
    return output_ ? static_cast<uint32_t>(output_->written()) : 0;
}

void OutputStream::take(std::span<const uint8_t> bytes) {
    if (!output_) output_.emplace(path_, input_);
    output_->write(bytes);
    if (progress_ != nullptr) progress_->show_bytes(written(), "written");
}

void OutputStream::rethrow_failure() const {
    if (failure_) std::rethrow_exception(failure_);
}

void OutputStream::finish() {
    rethrow_failure();
    if (output_) output_->finish();
}

uint32_t OutputStream::get_offset(void* context, uint32_t* offset) {
    *offset = self(context).written();
    return KST_HOST_OK;
}

uint32_t OutputStream::seek(void* context, uint32_t offset) {
    return offset == self(context).written() ? KST_HOST_OK : KST_HOST_FAILED;
}

uint32_t OutputStream::read(void*, void*, uint32_t* count, int32_t) {
    *count = 0;  // there is nothing to read in an output
    return KST_HOST_OK;
}

// The library sees no exception; finish() throws it on.
uint32_t OutputStream::write(void* context, const void* data, uint32_t count, int32_t) {
    OutputStream& stream = self(context);
    if (stream.refuses_ || stream.failure_) return KST_HOST_FAILED;
    try {
        stream.take({static_cast<const uint8_t*>(data), count});
        return KST_HOST_OK;
    } catch (...) {
        stream.failure_ = std::current_exception();
        return KST_HOST_FAILED;
    }
}

uint32_t OutputStream::size(void* context, uint32_t* size) {
    *size = self(context).written();
    return KST_HOST_OK;
}

uint32_t OutputStream::is_eof(void*) {
    return 1;
}

uint32_t OutputStream::index_read(void*, void*, uint32_t, uint32_t, uint32_t* bytes_read) {
    *bytes_read = 0;
    return KST_HOST_OK;
}

uint32_t OutputStream::advance(void*, uint32_t) {
    return KST_HOST_OK;
}

uint32_t OutputStream::check_status(void*, uint32_t* result, uint32_t status) {
    *result = status;
    return KST_HOST_OK;
}

}  // namespace tool
