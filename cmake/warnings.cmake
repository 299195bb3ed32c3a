# SPDX-License-Identifier: Apache-2.0
# One strict warning level for everything that is ours; both compilers must be silent at it.
add_library(kestrel_warnings INTERFACE)
target_compile_options(
    kestrel_warnings
    INTERFACE -Wall
              -Wextra
              -Wpedantic
              -Wshadow
              -Wconversion
              -Wcast-align
              -Wcast-qual
              -Wformat=2
              -Wundef
              $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
              $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
              $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
              $<$<COMPILE_LANGUAGE:CXX>:-Wextra-semi>
              $<$<BOOL:${KESTREL_WERROR}>:-Werror>)
