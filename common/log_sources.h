// SPDX-License-Identifier: Apache-2.0
// The source paths that log lines carry. Hosts filter by them, so they are fixed texts: they do not
// say where files lie.
#ifndef KESTREL_COMMON_LOG_SOURCES_H
#define KESTREL_COMMON_LOG_SOURCES_H

namespace kestrel {

inline constexpr const char* kApiSource = ".//interface/src/kestrel";
inline constexpr const char* kMmfiSource = ".//interface/src/mmfiInterface";
inline constexpr const char* kDriverSource = ".//interface/src/c3gpinterface";
inline constexpr const char* kIsoffSource = "isoff";
inline constexpr const char* kWriterSource = ".//propfile/src/propfile_base";
inline constexpr const char* kAudioWriterSource = ".//propfile/src/propfile_audio";
inline constexpr const char* kVideoWriterSource = ".//propfile/src/propfile_video";
inline constexpr const char* kBoxSource = ".//boxes/box_base";
inline constexpr const char* kStreamSource = ".//boxes/stream_io";
inline constexpr const char* kSampleEntrySource = ".//boxes/sample_entries";
inline constexpr const char* kFileSource = ".//boxes/simple3gp";

}  // namespace kestrel

#endif
