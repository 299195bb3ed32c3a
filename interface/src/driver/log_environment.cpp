// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "interface/src/driver/driver.h"

namespace kestrel {
namespace {

bool is_set(const char* variable) {
    const char* value = std::getenv(variable);
    return value != nullptr && std::strcmp(value, "1") == 0;
}

void set_log_level(int32_t level) {
    std::atomic_ref(sx_Debug).store(level, std::memory_order_relaxed);
}

}  // namespace

void read_log_environment() {
    if (is_set("KST_LOG_DEBUG")) {
        set_log_level(4);
        log_always(here(), "Kestrel: Set log level to DEBUG");
    }
    if (is_set("KST_LOG_DEBUG_VERBOSE")) {
        set_log_level(5);
        log_always(here(), "Kestrel: Set log level to DEBUG_VERBOSE");
    }
}

}  // namespace kestrel
