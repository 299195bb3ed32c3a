// SPDX-License-Identifier: Apache-2.0
// Shared by the files of the class driver.
#ifndef KESTREL_INTERFACE_C3GPINTERFACE_H
#define KESTREL_INTERFACE_C3GPINTERFACE_H

#include "common/log_sources.h"
#include "common/simple_exception.h"
#include "kestrel/c3gpinterface.h"
#include "propfile/src/media_source.h"

namespace kestrel {

enum DriverMedium : unsigned int { kNoMedium = 0, kAudio = 1, kVideo = 16 };
enum DriverDirection : unsigned int { kNoDirection = 0, kRead = 1 };
enum DriverVideoCodec : unsigned int { kH263 = 0, kH263_1998 = 1, kMpeg4 = 2, kNoCodec = 3 };

// Bytes that are read or allocated at once because a table declares them. More follow only when
// these have arrived.
inline constexpr uint32_t kTrustedBytes = 65536;

// The place of a line of the driver.
inline LogSite here(long line = __builtin_LINE()) {
    return at(kDriverSource, line);
}

// For log lines.
inline uintptr_t address(const void* pointer) {
    return reinterpret_cast<uintptr_t>(pointer);
}

// Sets sx_Debug as the environment asks. The companion library, which logs nothing, has a
// definition that does nothing.
void read_log_environment();

// Sets the status that the public function returns, and throws.
[[noreturn]] void fail(unsigned int& status_field, unsigned int status, LogSite site,
                       const char* format, ...) __attribute__((format(printf, 4, 5)));

}  // namespace kestrel

#endif
