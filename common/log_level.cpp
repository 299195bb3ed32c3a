// SPDX-License-Identifier: Apache-2.0
#include "kestrel/log.h"

extern "C" {
int32_t sx_Debug = 3;
}
