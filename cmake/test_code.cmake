# SPDX-License-Identifier: Apache-2.0
# For a folder whose code only tests run: compiled for the compiler's time, not its own. The sanitizers
# watch the libraries; of this code only what it reads and writes.
add_compile_options(-O0 -U_FORTIFY_SOURCE -fPIE) # -fPIE: a precompiled header is for one model only
if(KESTREL_SANITIZE)
    add_compile_options(-fno-sanitize=undefined)
endif()
