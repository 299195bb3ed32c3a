// SPDX-License-Identifier: Apache-2.0
#include "interface/src/driver/driver.h"

// The log level of the modules that the companion library has a copy of.
extern "C" {
int32_t sx_Debug = 0;
}

void kestrel::read_log_environment() {}
