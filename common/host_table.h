// SPDX-License-Identifier: Apache-2.0
// The check of a host's table.
#ifndef KESTREL_COMMON_HOST_TABLE_H
#define KESTREL_COMMON_HOST_TABLE_H

#include "kestrel/stream.h"

namespace kestrel {

// Whether no function slot is null. The context may be null.
inline bool is_complete(const KST_IOSTREAM_CALLBACK_INTERFACE* table) {
    return table != nullptr && table->GetOffset && table->Seek && table->SeekNRead &&
           table->SeekNWrite && table->GetStreamSize && table->IsEOF && table->IndexRead &&
           table->AdvanceRead && table->CheckStatus;
}

}  // namespace kestrel

#endif
