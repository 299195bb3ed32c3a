#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Rebuild the media file (.amr, .h263, .m4v or .h264) from a native stream.

Usage: read_stream.py STREAM OUT        (STREAM "-" is standard input)

Written from docs/native-format.md alone. Needs no library of Kestrel.

Exits with 0 if the stream ends after a whole frame, with 1 if it is truncated or malformed (OUT then has
what is whole before that place), and with 2 on wrong usage. Does not compare the frames with the number
that the header records declare.
"""

import struct
import sys

CHUNK = 65536
MAX_FRAME = 16 * 1024 * 1024  # bytes that the packets of one frame take at most
START_CODE = b"\0\0\0\1"
NARROW_BITS = (95, 103, 118, 134, 148, 159, 204, 244, 39, 0, 0, 0, 0, 0, 0, 0)
WIDE_BITS = (132, 177, 253, 285, 317, 365, 397, 461, 477, 40, 0, 0, 0, 0, 0, 0)


class StreamError(Exception):
    def __init__(self, what, offset):
        super().__init__(f"{what} at byte {offset}")


class Reader:
    """Reads exact numbers of bytes and counts the offset."""

    def __init__(self, file):
        self.file = file
        self.offset = 0

    def read(self, size, what):
        data = bytearray()
        while len(data) < size:
            # In small pieces: a false length must not take memory that the stream does not fill.
            piece = self.file.read(min(size - len(data), CHUNK))
            if not piece:
                raise StreamError(f"stream ends inside the {what} begun", self.offset)
            data += piece
        self.offset += size
        return bytes(data)

    def at_end(self):
        return not self.file.peek(1)

    def skip(self, size, what):
        while size > 0:
            size -= len(self.read(min(size, CHUNK), what))


def rebuild(reader, out):
    record = reader.read(24, "PROP_Header_Info")
    medium, length, _ten, padding, _value = struct.unpack("<8s4I", record)
    sizes = {b"AUDIO   ": (68,), b"VIDEO   ": (92, 440, 452)}
    if medium not in sizes:
        raise StreamError("unknown medium", 0)
    if length - padding not in sizes[medium]:
        raise StreamError(f"wrong header length {length}", 8)
    if medium == b"AUDIO   ":
        rebuild_speech(reader, padding, out)
    elif not reader.at_end():  # video without a frame may end after the first record
        codec, configuration = read_video_header(reader, length - padding, padding)
        REBUILD[codec](video_packets(reader), configuration, out)  # alike for both APIs


def rebuild_speech(reader, padding, out):
    record = reader.read(44, "header records")
    _length, coding, _rate, bits_per_sample = struct.unpack_from("<4I", record)  # AUD_Codec_Header
    if coding != 51 and not 26 <= coding <= 33:
        raise StreamError(f"unknown coding {coding}", 28)
    out.write(b"#!AMR-WB\n" if coding == 51 else b"#!AMR\n")
    reader.skip(padding, "header padding")
    write = write_class_speech if bits_per_sample == 0 else write_function_speech
    for at, data in speech_frames(reader):
        write(at, data, WIDE_BITS if coding == 51 else NARROW_BITS, out)


def read_video_header(reader, size, padding):
    """Return the codec name, and the configuration of MPEG-4."""
    records = reader.read(size - 24, "header records")
    reader.skip(padding, "header padding")
    codec = records[16:24].rstrip(b"\0")  # VID_Header_CodecInfo
    if size != {b"s263": 92, b"s263+": 92, b"mp4v": 440, b"s264": 452}.get(codec):
        raise StreamError("codec is unknown or does not fit the header length", 40)
    if codec != b"mp4v":
        return codec, b""
    _profile, configuration, length = struct.unpack_from("<I350sH", records, 44)
    return codec, configuration[:length]


def speech_size(bits, header_byte):
    """Return the bytes of speech that follow a header byte or a table of contents byte."""
    return (bits[header_byte >> 3 & 15] + 7) // 8


def speech_frames(reader):
    """Yield each frame: the offset of its bytes from 24 on, and these bytes."""
    while not reader.at_end():
        at = reader.offset
        length = struct.unpack_from("<I", reader.read(24, "frame"))[0]
        if not 24 <= length <= MAX_FRAME:
            raise StreamError(f"wrong frame length {length}", at)
        yield at + 24, reader.read(length - 24, "frame contents")


def write_function_speech(at, data, bits, out):
    """Write the one speech frame after the mode byte."""
    if len(data) < 2 or len(data) != 2 + speech_size(bits, data[1]):
        raise StreamError("frame length does not fit the frame type", at)
    out.write(data[1:])


def write_class_speech(at, data, bits, out):
    """Write the speech frames of all RTP payloads. A payload of one byte has no speech frame."""
    position = 0
    while position + 1 < len(data):
        end = begin = position + 1  # the table of contents, after the codec mode request
        while end < len(data) and data[end] & 0x80:
            end += 1
        if end == len(data):
            raise StreamError("table of contents without an end", at + begin)
        position = end + 1
        for entry in data[begin:end + 1]:
            size = speech_size(bits, entry)
            if position + size > len(data):
                raise StreamError("speech frame exceeds its frame", at + position)
            out.write(bytes([entry & 0x7F]) + data[position:position + size])
            position += size


def video_packets(reader):
    """Yield the payload of each packet that has one, and its offset."""
    while not reader.at_end():
        at = reader.offset
        total, count, padding, _four, _one = struct.unpack("<5I", reader.read(20, "frame"))
        left = total - 20 - padding
        if padding > 3 or total % 4 or not 0 <= left <= MAX_FRAME:
            raise StreamError(f"wrong frame: total length {total}, padding {padding}", at)
        for _ in range(count):
            at = reader.offset
            size = struct.unpack_from("<I", reader.read(20, "packet"))[0]
            if not 20 <= size <= left:
                raise StreamError(f"wrong packet length {size}", at)
            left -= size
            payload = reader.read(size - 20, "payload")
            if payload:
                yield at + 20, payload
        if left:
            raise StreamError("total length does not fit the packets of the frame", reader.offset)
        reader.read(padding, "frame padding")


def after_header(at, payload, size):
    """Return the payload without its header of `size` bytes."""
    if size > len(payload):
        raise StreamError("payload is shorter than its header", at)
    return payload[size:]


def rebuild_rfc2190(packets, _configuration, out):
    """H.263, codec `s263`. The last byte waits for the next packet: they may share it."""
    last, last_ebit = b"", 0
    try:
        for at, payload in packets:
            if payload[:4] == b"\xff\xff\xff\xff":  # a spoilt header
                size, sbit, ebit = 8, None, None
            else:
                size = (4, 4, 8, 12)[payload[0] >> 6]
                sbit, ebit = payload[0] >> 3 & 7, payload[0] & 7
            media = after_header(at, payload, size)
            if media:
                media = join(last, last_ebit, sbit, media)
                out.write(media[:-1])
                last, last_ebit = media[-1:], ebit
    finally:
        out.write(last)


def join(last, ebit, sbit, media):
    """Join the last byte of a packet and the media of the next. None is an unknown EBIT or SBIT."""
    if not last:
        return media
    if ebit is None and sbit is None:
        return media if last == media[:1] else last + media
    if ebit is None or sbit is None:
        return media if ebit or sbit else last + media
    if ebit and sbit:
        shared = (last[0] & (0xFF << ebit)) | (media[0] & (0xFF >> sbit))
        return bytes([shared]) + media[1:]
    return last + media


def rebuild_rfc4629(packets, _configuration, out):
    """H.263, codec `s263+`."""
    for at, payload in packets:
        header = int.from_bytes(payload[:2], "big")
        size = 2 + (header >> 9 & 1) + (header >> 3 & 63)  # V and PLEN
        media = after_header(at, payload, size)
        out.write(b"\0\0" + media if header >> 10 & 1 else media)


def rebuild_mpeg4(packets, configuration, out):
    is_first, plain = True, False
    for at, payload in packets:
        plain = payload[:3] == b"\0\0\1" if is_first else plain
        size = 0 if plain else 2 + (int.from_bytes(payload[:2], "big") + 7) // 8
        media = after_header(at, payload, size)
        if is_first and media[:4] != b"\0\0\1\xb0":
            out.write(configuration)
        is_first = False
        out.write(media)


def rebuild_h264(packets, _configuration, out):
    for at, payload in packets:
        kind = payload[0] & 31
        if 1 <= kind <= 23:
            out.write(START_CODE + payload)
        elif kind == 24:
            write_stap_a(at, payload, out)
        elif kind == 28:
            media = after_header(at, payload, 2)
            if payload[1] & 0x80:
                out.write(START_CODE + bytes([payload[0] & 0xE0 | payload[1] & 0x1F]))
            out.write(media)
        else:
            raise StreamError(f"unknown payload type {kind}", at)


def write_stap_a(at, payload, out):
    position = 1
    while position < len(payload):
        end = position + 2 + int.from_bytes(payload[position:position + 2], "big")
        if end > len(payload):
            raise StreamError("NAL unit exceeds its payload", at + position)
        out.write(START_CODE + payload[position + 2:end])
        position = end


REBUILD = {b"s263": rebuild_rfc2190, b"s263+": rebuild_rfc4629,
           b"mp4v": rebuild_mpeg4, b"s264": rebuild_h264}


def main(arguments):
    if len(arguments) != 2 or arguments[0] == arguments[1]:
        print("usage: read_stream.py STREAM OUT", file=sys.stderr)
        return 2
    source, target = arguments
    try:
        source = 0 if source == "-" else source  # 0 is standard input
        with open(source, "rb") as file, open(target, "wb") as out:
            rebuild(Reader(file), out)
    except (StreamError, OSError) as error:
        print(f"read_stream.py: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
