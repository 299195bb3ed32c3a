#include "kestrel/log.h"

extern "C" {
int32_t sx_Debug = 3;
}
