// SPDX-License-Identifier: Apache-2.0
// MD5 (RFC 1321), in which the digests beside the samples are.
#ifndef KESTREL_TESTS_MD5_H
#define KESTREL_TESTS_MD5_H

#include <cstdint>
#include <span>
#include <string>

// The digest in hexadecimal digits.
std::string md5(std::span<const uint8_t> bytes);

#endif
