#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Reads a native stream and rebuilds the media file: .amr, .h263, .m4v or .h264.

Usage: read_stream.py STREAM OUT    (- reads standard input)

Written from docs/native-format.md alone. Needs no library of Kestrel.
"""
import struct
import sys

START_CODE = b"\0\0\0\1"
NARROW_BAND_BITS = [95, 103, 118, 134, 148, 159, 204, 244, 39] + 7 * [0]
WIDE_BAND_BITS = [132, 177, 253, 285, 317, 365, 397, 461, 477, 40] + 6 * [0]
WIDE_BAND_CODING = 51


class Malformed(Exception):
    pass


class Cursor:
    """Takes fields and bytes from the front of a buffer."""

    def __init__(self, data):
        self.data, self.at = data, 0

    def __bool__(self):
        return self.at < len(self.data)

    def take(self, count):
        if count < 0 or self.at + count > len(self.data):
            raise Malformed(f"{count} bytes wanted at offset {self.at}, "
                            f"{len(self.data) - self.at} left")
        self.at += count
        return self.data[self.at - count:self.at]

    def rest(self):
        return self.take(len(self.data) - self.at)

    def fields(self, form):
        """Little-endian fields in the notation of the struct module."""
        return struct.unpack("<" + form, self.take(struct.calcsize("<" + form)))


def require(condition, text):
    if not condition:
        raise Malformed(text)


# --- speech ---

def speech_size(table_entry, bits):
    return (bits[table_entry >> 3 & 15] + 7) // 8


def rtp_speech(payloads):
    """The speech frames of octet-aligned RFC 4867 payloads, in storage format."""
    cursor = Cursor(payloads)
    while cursor:
        cursor.take(1)  # codec mode request
        table = [cursor.take(1)[0]]
        while table[-1] & 0x80:
            table.append(cursor.take(1)[0])
        for entry in table:
            yield bytes([entry & 0x7F]) + cursor.take(speech_size(entry, NARROW_BAND_BITS))


def read_speech(stream):
    _, coding, _, bits_per_sample = stream.fields("4I")
    stream.take(12 + 16)  # AUD_Header_IndxInfo, VID_FileInfo
    wide = coding == WIDE_BAND_CODING
    yield b"#!AMR-WB\n" if wide else b"#!AMR\n"
    while stream:
        length, coder, time, time_again, _, _, zero = stream.fields("4I2HI")
        require(coder == (20 if wide else 10) and time == time_again and zero == 0,
                f"no speech frame ends at offset {stream.at}")
        body = Cursor(stream.take(length - 24))
        if bits_per_sample == 0:  # the class API
            yield from rtp_speech(body.rest())
            continue
        body.take(1)  # mode byte
        frame = body.rest()
        bits = WIDE_BAND_BITS if wide else NARROW_BAND_BITS
        require(frame and len(frame) == 1 + speech_size(frame[0], bits), "wrong size of a frame")
        yield frame


# --- video ---

def read_packets(stream):
    while stream:
        length, count, padding, four, one = stream.fields("5I")
        require((four, one) == (4, 1), f"no video frame ends at offset {stream.at}")
        packets = Cursor(stream.take(length - 20))
        for _ in range(count):
            size, time, word, time_again, zero = packets.fields("5I")
            require(word >> 30 == 2 and time == time_again and zero == 0, "no packet header")
            yield packets.take(size - 20)
        require(not any(packets.take(padding)) and not packets, "the packets do not fill the frame")


def h263_plus(payloads):
    for payload in map(Cursor, payloads):
        header = int.from_bytes(payload.take(2), "big")
        payload.take(header >> 9 & 1)  # V
        payload.take(header >> 3 & 63)  # PLEN
        yield (b"\0\0" if header >> 10 & 1 else b"") + payload.rest()


def rfc2190_header(payload):
    """Size, SBIT and EBIT; the bits of a spoilt header are not known."""
    if payload[:4] == b"\xff\xff\xff\xff":
        return 8, None, None
    require(payload, "empty payload")
    size = (4, 4, 8, 12)[payload[0] >> 6]
    return size, payload[0] >> 3 & 7, payload[0] & 7


def joined(last, ebit, first, sbit):
    """The byte that two packets share, or None where each has its own."""
    if ebit is None and sbit is None:
        return first if last == first else None
    if ebit is None or sbit is None:
        return first if ebit or sbit else None
    return (last & 0xFF << ebit) | (first & 0xFF >> sbit) if ebit and sbit else None


def h263(payloads):
    held, held_ebit = b"", 0  # the last byte of the packet before
    for payload in payloads:
        size, sbit, ebit = rfc2190_header(payload)
        media = bytearray(payload[size:])
        require(media, "a packet without media")
        if held:
            shared = joined(held[0], held_ebit, media[0], sbit)
            if shared is None:
                yield held
            else:
                media[0] = shared
        yield bytes(media[:-1])
        held, held_ebit = bytes(media[-1:]), ebit
    yield held


def mpeg4(payloads, configuration):
    first, has_au_headers = True, False
    for payload in map(Cursor, payloads):
        if first:
            has_au_headers = payload.data[:3] != b"\0\0\1"
        if has_au_headers:
            payload.take((int.from_bytes(payload.take(2), "big") + 7) // 8)
        media = payload.rest()
        if first and media[:4] != b"\0\0\1\xb0":
            yield configuration
        first = False
        yield media


def h264(payloads):
    for payload in map(Cursor, payloads):
        indicator = payload.take(1)
        kind = indicator[0] & 31
        if kind == 24:
            while payload:
                yield START_CODE + payload.take(int.from_bytes(payload.take(2), "big"))
        elif kind == 28:
            fragment = payload.take(1)[0]
            if fragment & 0x80:
                yield START_CODE + bytes([indicator[0] & 0xE0 | fragment & 31])
            yield payload.rest()
        else:
            require(1 <= kind <= 23, f"NAL unit type {kind}")
            yield START_CODE + indicator + payload.rest()


def read_video(stream):
    stream.take(8 + 8)  # VID_Header_NTSInfo, VID_Header_IndxInfo
    codec = stream.fields("8s5I")[0].rstrip(b"\0")
    configuration = b""
    if codec in (b"s263", b"s263+"):
        stream.take(8)
    elif codec == b"mp4v":
        _, configuration, length = stream.fields("I350sH")
        configuration = configuration[:length]
    else:
        require(codec == b"s264", f"unknown codec {codec}")
        stream.take(368)
    stream.take(16)  # VID_FileInfo
    packets = read_packets(stream)
    if codec == b"mp4v":
        return mpeg4(packets, configuration)
    return {b"s263": h263, b"s263+": h263_plus, b"s264": h264}[codec](packets)


def rebuild(data):
    """The pieces of the media file that a stream holds."""
    stream = Cursor(data)
    medium, header_length, constant, padding, _ = stream.fields("8s4I")
    require(medium in (b"AUDIO   ", b"VIDEO   ") and constant == 10, "this is no native stream")
    if not stream:
        return iter(())  # the track gives no frame
    records = header_length - padding
    stream = Cursor(data[:records] + data[header_length:])  # the padding left out
    stream.take(24)
    return read_speech(stream) if medium == b"AUDIO   " else read_video(stream)


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    try:
        with (sys.stdin.buffer if sys.argv[1] == "-" else open(sys.argv[1], "rb")) as file:
            media = b"".join(rebuild(file.read()))
        with open(sys.argv[2], "wb") as out:
            out.write(media)
    except (Malformed, OSError) as fault:
        sys.exit(f"{sys.argv[1]}: {fault}")


if __name__ == "__main__":
    main()
