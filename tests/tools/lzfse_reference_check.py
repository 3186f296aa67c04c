#!/usr/bin/env python3
"""An independent, strict LZFSE decoder used to cross-check kinbook-lzfse.

Kinbook writes compressed address-book data with its own LZFSE encoder.  Other
LZFSE decoders must be able to read those files, so this script decodes the
encoder's output with a second decoder that shares no code with the C++ one,
and rejects every deviation from the stream format instead of tolerating it.

Run it as

    lzfse_reference_check.py --encoder build/release/cli/kinbook-lzfse \
                             --vectors tests/data/lzfse

It (a) decodes the reference vectors NAME.lzfse and compares them with NAME.bin,
which checks this decoder, (b) requires every corrupt-*.lzfse to be rejected,
and (c) compresses every NAME.bin plus generated inputs with kinbook-lzfse and
decodes the result here, byte for byte.  The last line is "N passed, M failed";
the exit status is non-zero when anything failed.

Standard library only.
"""

import argparse
import os
import struct
import subprocess
import sys
import tempfile
import time

# --------------------------------------------------------------------------
# Errors and per-block records
# --------------------------------------------------------------------------


class DecodeError(Exception):
    """The stream is not a valid LZFSE stream; the message says where and why."""


MAGIC_END = 0x24787662  # bvx$
MAGIC_RAW = 0x2D787662  # bvx-
MAGIC_V1 = 0x31787662  # bvx1
MAGIC_V2 = 0x32787662  # bvx2
MAGIC_LZVN = 0x6E787662  # bvxn
MAGIC_NAMES = {
    MAGIC_END: "bvx$",
    MAGIC_RAW: "bvx-",
    MAGIC_V1: "bvx1",
    MAGIC_V2: "bvx2",
    MAGIC_LZVN: "bvxn",
}

LITERALS_PER_BLOCK_MAX = 40000
MATCHES_PER_BLOCK_MAX = 10000


class BlockInfo:
    """What the decoder learned about one block; used for the report."""

    def __init__(self, kind, offset):
        self.kind = kind
        self.offset = offset
        self.stream_bytes = 0
        self.content_bytes = 0
        self.n_matches = 0
        self.n_literals = 0
        self.cross_block_matches = 0
        self.max_distance = 0
        # Things the format permits but that a careful encoder would not write
        # (nonzero "unused" bits, unconsumed bit-stream prefixes, ...).
        self.notes = []


def _fail(where, message):
    raise DecodeError(f"{where}: {message}")


# --------------------------------------------------------------------------
# FSE tables
# --------------------------------------------------------------------------


def build_fse_table(freqs, n_states, where, name):
    """Returns (symbol, nbits, base) lists of length n_states.

    The frequencies must sum to exactly n_states: states are handed out in
    symbol order, and a table with unowned states has no defined decoding."""
    total = sum(freqs)
    if total != n_states:
        _fail(where, f"{name} frequencies sum to {total}, expected exactly {n_states}")
    log_n = n_states.bit_length() - 1
    symbol = [0] * n_states
    nbits = [0] * n_states
    base = [0] * n_states
    c = 0
    for s, f in enumerate(freqs):
        if f == 0:
            continue
        k = log_n - (f.bit_length() - 1)
        j0 = ((2 * n_states) >> k) - f
        for j in range(f):
            symbol[c + j] = s
            if j < j0:
                nbits[c + j] = k
                base[c + j] = ((f + j) << k) - n_states
            else:
                nbits[c + j] = k - 1
                base[c + j] = (j - j0) << (k - 1)
        c += f
    return symbol, nbits, base


def _value_table(n_symbols, extra_bits):
    bases = []
    b = 0
    for s in range(n_symbols):
        bases.append(b)
        b += 1 << extra_bits[s]
    return bases


L_EXTRA = [0] * 16 + [2, 3, 5, 8]
M_EXTRA = [0] * 16 + [3, 5, 8, 11]
D_EXTRA = [s // 4 for s in range(64)]
L_BASE = _value_table(20, L_EXTRA)
M_BASE = _value_table(20, M_EXTRA)
D_BASE = _value_table(64, D_EXTRA)


def _lmd_table(freqs, n_states, extra, value_base, where, name):
    """FSE table for L, M or D folded with the symbols' extra bits.

    Per state: total bits to read (state bits above extra bits), the extra bit
    count, the mask of the extra bits, the value base and the next-state base."""
    symbol, nbits, base = build_fse_table(freqs, n_states, where, name)
    total = [nbits[i] + extra[symbol[i]] for i in range(n_states)]
    ext = [extra[symbol[i]] for i in range(n_states)]
    emask = [(1 << e) - 1 for e in ext]
    vbase = [value_base[symbol[i]] for i in range(n_states)]
    return total, ext, emask, vbase, base


# --------------------------------------------------------------------------
# v2 frequency-table code
# --------------------------------------------------------------------------


def decode_v2_frequencies(header, header_size, where, info):
    """Decodes the 360 frequencies packed after the 32-byte fixed v2 header."""
    if header_size == 32:
        return [0] * 360
    if header_size < 122 or header_size > 662:
        _fail(where, f"header_size {header_size} is outside 122..662 (or 32)")
    avail = 8 * (header_size - 32)
    bits = int.from_bytes(header[32:header_size], "little")
    pos = 0
    values = []
    for i in range(360):
        x = (bits >> pos) & 0x3FFF
        if x & 1 == 0:
            n, v = 2, (x >> 1) & 1
        elif x & 3 == 1:
            n, v = 3, 2 + ((x >> 2) & 1)
        elif x & 7 == 3:
            n, v = 5, 4 + ((x >> 3) & 3)
        elif x & 15 == 7:
            n, v = 8, 8 + ((x >> 4) & 15)
        else:
            n, v = 14, 24 + ((x >> 4) & 1023)
        if pos + n > avail:
            _fail(where, f"frequency code {i} needs bits past header_size {header_size}")
        pos += n
        values.append(v)
    if (pos + 7) // 8 != header_size - 32:
        _fail(
            where,
            f"frequency code uses {pos} bits ({(pos + 7) // 8} bytes) but header_size "
            f"leaves {header_size - 32} bytes for it",
        )
    if bits >> pos:
        info.notes.append("frequency code: unused high bits of its last byte are not zero")
    return values


# --------------------------------------------------------------------------
# Backward bit streams
# --------------------------------------------------------------------------


def _check_stream_start(payload, adjustment, where, name):
    """Validates the adjustment and its padding bits; returns the bit count."""
    if adjustment < -7 or adjustment > 0:
        _fail(where, f"{name} bit adjustment {adjustment} is outside -7..0")
    n = len(payload)
    total = 8 * n + adjustment
    if total < 0:
        _fail(where, f"{name} stream is empty but its adjustment is {adjustment}")
    if adjustment < 0 and payload[n - 1] >> (8 + adjustment):
        _fail(where, f"{name} stream: the {-adjustment} padding bits of its last byte are not zero")
    return total


def decode_literals(payload, adjustment, states, table, n_literals, where, info):
    """Decodes n_literals bytes from the 4 interleaved literal FSE streams."""
    _check_stream_start(payload, adjustment, where, "literal")
    symbol, nbits, base = table
    for i, s in enumerate(states):
        if s >= 1024:
            _fail(where, f"literal_state[{i}] = {s} is not below 1024")
    s0, s1, s2, s3 = states
    out = bytearray(n_literals)
    byte_lo = len(payload)
    # acc holds exactly the unread bits above bit 8*byte_lo: 'avail' of them.
    # Padding bits were checked to be zero, so loading the last byte whole
    # keeps that true.
    acc = 0
    avail = adjustment
    from_bytes = int.from_bytes
    for i in range(0, n_literals, 4):
        if avail < 40 and byte_lo:
            k = byte_lo if byte_lo < 8 else 8
            acc = (acc << (8 * k)) | from_bytes(payload[byte_lo - k : byte_lo], "little")
            byte_lo -= k
            avail += 8 * k
        if avail >= 40:
            out[i] = symbol[s0]
            n = nbits[s0]
            avail -= n
            x = acc >> avail
            acc ^= x << avail
            s0 = base[s0] + x
            out[i + 1] = symbol[s1]
            n = nbits[s1]
            avail -= n
            x = acc >> avail
            acc ^= x << avail
            s1 = base[s1] + x
            out[i + 2] = symbol[s2]
            n = nbits[s2]
            avail -= n
            x = acc >> avail
            acc ^= x << avail
            s2 = base[s2] + x
            out[i + 3] = symbol[s3]
            n = nbits[s3]
            avail -= n
            x = acc >> avail
            acc ^= x << avail
            s3 = base[s3] + x
        else:
            # Close to the start of the stream: check every read.
            st = [s0, s1, s2, s3]
            for lane in range(4):
                s = st[lane]
                out[i + lane] = symbol[s]
                n = nbits[s]
                if n > avail:
                    _fail(where, f"literal stream runs past its start at literal {i + lane}")
                avail -= n
                x = acc >> avail
                acc ^= x << avail
                st[lane] = base[s] + x
            s0, s1, s2, s3 = st
    unused = avail + 8 * byte_lo
    if unused:
        info.notes.append(f"literal stream: {unused} bits left unread at its start")
    if (s0, s1, s2, s3) != (0, 0, 0, 0):
        info.notes.append(f"literal stream: final states {(s0, s1, s2, s3)} are not all 0")
    return out


# --------------------------------------------------------------------------
# LZFSE blocks
# --------------------------------------------------------------------------


def decode_lzfse_block(data, off, where, fields, out, block_target, limit, info):
    """Decodes the payload of a bvx1/bvx2 block whose header has been parsed.

    'fields' holds the header values; the payload starts at data[off]."""
    n_literals = fields["n_literals"]
    n_matches = fields["n_matches"]
    n_lit_payload = fields["n_literal_payload_bytes"]
    n_lmd_payload = fields["n_lmd_payload_bytes"]
    freqs = fields["freqs"]
    info.n_literals = n_literals
    info.n_matches = n_matches

    if n_literals > LITERALS_PER_BLOCK_MAX:
        _fail(where, f"n_literals {n_literals} exceeds {LITERALS_PER_BLOCK_MAX}")
    if n_literals % 4:
        _fail(where, f"n_literals {n_literals} is not a multiple of 4")
    if n_matches > MATCHES_PER_BLOCK_MAX:
        _fail(where, f"n_matches {n_matches} exceeds {MATCHES_PER_BLOCK_MAX}")
    if fields["l_state"] >= 64:
        _fail(where, f"l_state {fields['l_state']} is not below 64")
    if fields["m_state"] >= 64:
        _fail(where, f"m_state {fields['m_state']} is not below 64")
    if fields["d_state"] >= 256:
        _fail(where, f"d_state {fields['d_state']} is not below 256")
    for i, s in enumerate(fields["literal_state"]):
        if s >= 1024:
            _fail(where, f"literal_state[{i}] = {s} is not below 1024")
    for name, adj in (("literal_bits", fields["literal_bits"]), ("lmd_bits", fields["lmd_bits"])):
        if adj < -7 or adj > 0:
            _fail(where, f"{name} {adj} is outside -7..0")
    if off + n_lit_payload + n_lmd_payload > len(data):
        _fail(
            where,
            f"payload of {n_lit_payload} + {n_lmd_payload} bytes runs past the end of the "
            f"stream ({len(data) - off} bytes left)",
        )
    min_lmd = 7 if fields["lmd_bits"] == 0 else 8
    if n_lmd_payload < min_lmd:
        _fail(where, f"n_lmd_payload_bytes {n_lmd_payload} is below the minimum of {min_lmd}")

    l_freq, m_freq, d_freq, lit_freq = freqs[0:20], freqs[20:40], freqs[40:104], freqs[104:360]
    # Every table must be complete, used or not: a complete table is what any
    # decoder can build without undefined states.
    lit_table = build_fse_table(lit_freq, 1024, where, "literal")
    l_total, l_ext, l_emask, l_vbase, l_next = _lmd_table(l_freq, 64, L_EXTRA, L_BASE, where, "L")
    m_total, m_ext, m_emask, m_vbase, m_next = _lmd_table(m_freq, 64, M_EXTRA, M_BASE, where, "M")
    d_total, d_ext, d_emask, d_vbase, d_next = _lmd_table(d_freq, 256, D_EXTRA, D_BASE, where, "D")

    mv = memoryview(data)
    lit_payload = mv[off : off + n_lit_payload]
    lmd_payload = mv[off + n_lit_payload : off + n_lit_payload + n_lmd_payload]
    info.stream_bytes += n_lit_payload + n_lmd_payload

    literals = decode_literals(
        lit_payload, fields["literal_bits"], fields["literal_state"], lit_table, n_literals, where, info
    )

    _check_stream_start(lmd_payload, fields["lmd_bits"], where, "LMD")
    ls, ms, ds = fields["l_state"], fields["m_state"], fields["d_state"]
    byte_lo = len(lmd_payload)
    acc = 0
    avail = fields["lmd_bits"]
    from_bytes = int.from_bytes
    block_start = len(out)
    if block_target > limit:
        _fail(where, f"n_raw_bytes would take the content to {block_target} bytes, past the limit {limit}")
    lit_next = 0
    d_prev = 0
    cross = 0
    max_d = 0
    for t in range(n_matches):
        if avail < 54 and byte_lo:
            k = byte_lo if byte_lo < 8 else 8
            acc = (acc << (8 * k)) | from_bytes(lmd_payload[byte_lo - k : byte_lo], "little")
            byte_lo -= k
            avail += 8 * k
        n = l_total[ls] + m_total[ms] + d_total[ds]
        if n > avail:
            # The fields would be exact only if each fitted; say which one fails.
            for label, need in (("L", l_total[ls]), ("M", m_total[ms]), ("D", d_total[ds])):
                if need > avail:
                    _fail(where, f"LMD stream runs past its start while reading {label} of triple {t}")
                avail -= need
        n = l_total[ls]
        avail -= n
        x = acc >> avail
        acc ^= x << avail
        lv = l_vbase[ls] + (x & l_emask[ls])
        ls = l_next[ls] + (x >> l_ext[ls])
        n = m_total[ms]
        avail -= n
        x = acc >> avail
        acc ^= x << avail
        mv_len = m_vbase[ms] + (x & m_emask[ms])
        ms = m_next[ms] + (x >> m_ext[ms])
        n = d_total[ds]
        avail -= n
        x = acc >> avail
        acc ^= x << avail
        dv = d_vbase[ds] + (x & d_emask[ds])
        ds = d_next[ds] + (x >> d_ext[ds])

        if dv:
            d_prev = dv
        elif not d_prev:
            _fail(where, f"triple {t}: distance code 0 (previous distance) with no previous distance in the block")
        d = d_prev
        if lit_next + lv > n_literals:
            _fail(where, f"triple {t}: L = {lv} takes the literals past n_literals {n_literals}")
        produced = len(out)
        if produced + lv + mv_len > block_target:
            _fail(
                where,
                f"triple {t}: L = {lv}, M = {mv_len} takes the block's output past n_raw_bytes "
                f"({produced + lv + mv_len - block_start} > {block_target - block_start})",
            )
        if lv:
            out += literals[lit_next : lit_next + lv]
            lit_next += lv
            produced += lv
        if d > produced:
            _fail(where, f"triple {t}: distance {d} reaches before the start of the content ({produced} bytes)")
        if d > produced - block_start and mv_len:
            cross += 1
        if d > max_d and mv_len:
            max_d = d
        if mv_len:
            start = produced - d
            if d >= mv_len:
                out += out[start : start + mv_len]
            else:
                pattern = out[start:produced]
                out += (pattern * (mv_len // d + 1))[:mv_len]

    unused = avail + 8 * byte_lo
    if len(out) != block_target:
        _fail(
            where,
            f"the triples produce {len(out) - block_start} bytes but n_raw_bytes says {block_target - block_start}",
        )
    if n_literals - lit_next > 3:
        info.notes.append(f"{n_literals - lit_next} coded literals are never used (more than the padding to 4)")
    elif any(literals[lit_next:]):
        info.notes.append("padding literals are not 0x00")
    # The unread prefix of the LMD stream is normally the 64 zero bits the
    # encoder writes first so that readers can preload 8 bytes.
    if unused != 64 or acc != 0 or any(lmd_payload[:byte_lo]):
        info.notes.append(f"LMD stream: {unused} bits left unread at its start (expected 64 zero bits)")
    if (ls, ms, ds) != (0, 0, 0):
        info.notes.append(f"LMD stream: final states {(ls, ms, ds)} are not all 0")
    info.cross_block_matches = cross
    info.max_distance = max_d
    return off + n_lit_payload + n_lmd_payload


def parse_v1_header(data, off, where, info):
    if off + 772 > len(data):
        _fail(where, f"bvx1 header needs 772 bytes, {len(data) - off} left")
    (
        n_raw,
        n_payload,
        n_literals,
        n_matches,
        n_lit_payload,
        n_lmd_payload,
        literal_bits,
    ) = struct.unpack_from("<IIIIIIi", data, off + 4)
    lit_states = list(struct.unpack_from("<4H", data, off + 32))
    (lmd_bits,) = struct.unpack_from("<i", data, off + 40)
    l_state, m_state, d_state = struct.unpack_from("<3H", data, off + 44)
    freqs = list(struct.unpack_from("<360H", data, off + 50))
    if n_payload != n_lit_payload + n_lmd_payload:
        info.notes.append(
            f"n_payload_bytes {n_payload} differs from literal + LMD payload {n_lit_payload + n_lmd_payload}"
        )
    info.stream_bytes += 772
    return n_raw, off + 772, {
        "n_literals": n_literals,
        "n_matches": n_matches,
        "n_literal_payload_bytes": n_lit_payload,
        "n_lmd_payload_bytes": n_lmd_payload,
        "literal_bits": literal_bits,
        "lmd_bits": lmd_bits,
        "literal_state": lit_states,
        "l_state": l_state,
        "m_state": m_state,
        "d_state": d_state,
        "freqs": freqs,
    }


def parse_v2_header(data, off, where, info):
    if off + 32 > len(data):
        _fail(where, f"bvx2 header needs 32 bytes, {len(data) - off} left")
    n_raw, w0, w1, w2 = struct.unpack_from("<IQQQ", data, off + 4)
    header_size = w2 & 0xFFFFFFFF
    if header_size < 32:
        _fail(where, f"header_size {header_size} is below 32")
    if off + header_size > len(data):
        _fail(where, f"header_size {header_size} runs past the end of the stream ({len(data) - off} bytes left)")
    if w0 >> 63 or w1 >> 63 or w2 >> 62:
        info.notes.append("bvx2 header: unused high bits of the packed words are not zero")
    freqs = decode_v2_frequencies(data[off : off + header_size], header_size, where, info)
    info.stream_bytes += header_size
    return n_raw, off + header_size, {
        "n_literals": w0 & 0xFFFFF,
        "n_literal_payload_bytes": (w0 >> 20) & 0xFFFFF,
        "n_matches": (w0 >> 40) & 0xFFFFF,
        "literal_bits": ((w0 >> 60) & 7) - 7,
        "literal_state": [(w1 >> (10 * i)) & 0x3FF for i in range(4)],
        "n_lmd_payload_bytes": (w1 >> 40) & 0xFFFFF,
        "lmd_bits": ((w1 >> 60) & 7) - 7,
        "l_state": (w2 >> 32) & 0x3FF,
        "m_state": (w2 >> 42) & 0x3FF,
        "d_state": (w2 >> 52) & 0x3FF,
        "freqs": freqs,
    }


# --------------------------------------------------------------------------
# LZVN blocks
# --------------------------------------------------------------------------

OP_SML_D, OP_MED_D, OP_LRG_D, OP_PRE_D = "sml_d", "med_d", "lrg_d", "pre_d"
OP_SML_M, OP_LRG_M, OP_SML_L, OP_LRG_L = "sml_m", "lrg_m", "sml_l", "lrg_l"
OP_NOP, OP_EOS, OP_UDEF = "nop", "eos", "udef"


def _lzvn_opcode_classes():
    table = [None] * 256
    for b in range(256):
        if b < 0xE0 and (b & 7) <= 5 and (b >> 4) not in (0x7, 0xA, 0xB, 0xD):
            table[b] = OP_SML_D
    for b in range(0xA0, 0xC0):
        table[b] = OP_MED_D
    for b in (0x07, 0x0F, 0x17, 0x1F, 0x27, 0x2F, 0x37, 0x3F, 0x47, 0x4F,
              0x57, 0x5F, 0x67, 0x6F, 0x87, 0x8F, 0x97, 0x9F, 0xC7, 0xCF):
        table[b] = OP_LRG_D
    for b in (0x46, 0x4E, 0x56, 0x5E, 0x66, 0x6E, 0x86, 0x8E, 0x96, 0x9E, 0xC6, 0xCE):
        table[b] = OP_PRE_D
    for b in range(0xF1, 0x100):
        table[b] = OP_SML_M
    table[0xF0] = OP_LRG_M
    for b in range(0xE1, 0xF0):
        table[b] = OP_SML_L
    table[0xE0] = OP_LRG_L
    table[0x0E] = table[0x16] = OP_NOP
    table[0x06] = OP_EOS
    for b in [0x1E, 0x26, 0x2E, 0x36, 0x3E] + list(range(0x70, 0x80)) + list(range(0xD0, 0xE0)):
        assert table[b] is None, hex(b)
        table[b] = OP_UDEF
    assert None not in table
    counts = {}
    for c in table:
        counts[c] = counts.get(c, 0) + 1
    assert counts == {OP_SML_D: 120, OP_MED_D: 32, OP_LRG_D: 20, OP_PRE_D: 12, OP_SML_M: 15,
                      OP_LRG_M: 1, OP_SML_L: 15, OP_LRG_L: 1, OP_NOP: 2, OP_EOS: 1, OP_UDEF: 37}, counts
    return table


LZVN_OPS = _lzvn_opcode_classes()


def decode_lzvn_block(data, off, n_payload, out, block_target, where, info):
    p = data[off : off + n_payload]
    end = n_payload
    pos = 0
    d = 0
    block_start = len(out)
    ops = LZVN_OPS
    cross = 0
    count = 0
    max_d = 0
    while True:
        if pos >= end:
            _fail(where, "LZVN payload ends without an eos instruction")
        op = p[pos]
        kind = ops[op]
        at = f"LZVN instruction at payload offset {pos} (opcode 0x{op:02X}, {kind})"
        if kind == OP_SML_D:
            need = 2
            if pos + need > end:
                _fail(where, f"{at}: operands run past the payload")
            lv = op >> 6
            mlen = ((op >> 3) & 7) + 3
            d = ((op & 7) << 8) | p[pos + 1]
        elif kind == OP_MED_D:
            need = 3
            if pos + need > end:
                _fail(where, f"{at}: operands run past the payload")
            w = p[pos + 1] | (p[pos + 2] << 8)
            lv = (op >> 3) & 3
            mlen = (((op & 7) << 2) | (w & 3)) + 3
            d = w >> 2
        elif kind == OP_LRG_D:
            need = 3
            if pos + need > end:
                _fail(where, f"{at}: operands run past the payload")
            lv = op >> 6
            mlen = ((op >> 3) & 7) + 3
            d = p[pos + 1] | (p[pos + 2] << 8)
        elif kind == OP_PRE_D:
            need = 1
            lv = op >> 6
            mlen = ((op >> 3) & 7) + 3
        elif kind == OP_SML_M:
            need = 1
            lv = 0
            mlen = op & 15
        elif kind == OP_LRG_M:
            need = 2
            if pos + need > end:
                _fail(where, f"{at}: operands run past the payload")
            lv = 0
            mlen = p[pos + 1] + 16
        elif kind == OP_SML_L:
            need = 1
            lv = op & 15
            mlen = 0
        elif kind == OP_LRG_L:
            need = 2
            if pos + need > end:
                _fail(where, f"{at}: operands run past the payload")
            lv = p[pos + 1] + 16
            mlen = 0
        elif kind == OP_NOP:
            pos += 1
            continue
        elif kind == OP_EOS:
            if pos + 8 != end:
                _fail(where, f"{at}: eos must be the last 8 bytes of the payload ({end - pos} bytes left)")
            if any(p[pos + 1 : pos + 8]):
                info.notes.append("LZVN eos: the 7 bytes after the opcode are not zero")
            if len(out) != block_target:
                _fail(
                    where,
                    f"{at}: block produced {len(out) - block_start} bytes but n_raw_bytes says "
                    f"{block_target - block_start}",
                )
            info.n_matches = count
            info.cross_block_matches = cross
            info.max_distance = max_d
            return
        else:
            _fail(where, f"{at}: undefined opcode")
        if pos + need + lv > end:
            _fail(where, f"{at}: its {lv} literal bytes run past the payload")
        if len(out) + lv + mlen > block_target:
            _fail(where, f"{at}: output would pass n_raw_bytes {block_target - block_start}")
        if lv:
            out += p[pos + need : pos + need + lv]
        pos += need + lv
        if mlen:
            produced = len(out)
            if d == 0:
                _fail(where, f"{at}: match with distance 0 (no distance set in this block)")
            if d > produced:
                _fail(where, f"{at}: distance {d} reaches before the start of the content ({produced} bytes)")
            if d > produced - block_start:
                cross += 1
            if d > max_d:
                max_d = d
            count += 1
            start = produced - d
            if d >= mlen:
                out += out[start : start + mlen]
            else:
                out += (out[start:produced] * (mlen // d + 1))[:mlen]


# --------------------------------------------------------------------------
# Streams
# --------------------------------------------------------------------------


def decode_stream(data, limit, blocks=None):
    """Decodes a whole stream; returns the content as bytes.

    'limit' is the most content the caller accepts. 'blocks', when given, is a
    list that receives a BlockInfo per block. Bytes after bvx$ are rejected:
    neither reference streams nor ours have any."""
    if blocks is None:
        blocks = []
    data = bytes(data)
    out = bytearray()
    off = 0
    index = 0
    while True:
        where = f"block {index} at stream offset {off}"
        if off + 4 > len(data):
            _fail(where, "stream ends without bvx$ (truncated)")
        (magic,) = struct.unpack_from("<I", data, off)
        name = MAGIC_NAMES.get(magic)
        if name is None:
            _fail(where, f"unknown block magic {data[off:off + 4]!r}")
        where = f"block {index} ({name}) at stream offset {off}"
        info = BlockInfo(name, off)
        blocks.append(info)
        start_len = len(out)
        if magic == MAGIC_END:
            info.stream_bytes = 4
            off += 4
            if off != len(data):
                _fail(where, f"{len(data) - off} bytes follow bvx$")
            return bytes(out)
        if magic == MAGIC_RAW:
            if off + 8 > len(data):
                _fail(where, "raw block header is cut short")
            (n_raw,) = struct.unpack_from("<I", data, off + 4)
            if n_raw > len(data) - off - 8:
                _fail(where, f"n_raw_bytes {n_raw} exceeds the {len(data) - off - 8} bytes left")
            if len(out) + n_raw > limit:
                _fail(where, f"n_raw_bytes {n_raw} takes the content past the limit {limit}")
            out += data[off + 8 : off + 8 + n_raw]
            info.stream_bytes = 8 + n_raw
            off += 8 + n_raw
        elif magic == MAGIC_LZVN:
            if off + 12 > len(data):
                _fail(where, "LZVN block header is cut short")
            n_raw, n_payload = struct.unpack_from("<II", data, off + 4)
            if n_payload > len(data) - off - 12:
                _fail(where, f"n_payload_bytes {n_payload} exceeds the {len(data) - off - 12} bytes left")
            if n_raw == 0:
                _fail(where, "LZVN block with n_raw_bytes 0")
            if len(out) + n_raw > limit:
                _fail(where, f"n_raw_bytes {n_raw} takes the content past the limit {limit}")
            decode_lzvn_block(data, off + 12, n_payload, out, len(out) + n_raw, where, info)
            info.stream_bytes = 12 + n_payload
            off += 12 + n_payload
        else:
            if magic == MAGIC_V1:
                n_raw, payload_off, fields = parse_v1_header(data, off, where, info)
            else:
                n_raw, payload_off, fields = parse_v2_header(data, off, where, info)
            if len(out) + n_raw > limit:
                _fail(where, f"n_raw_bytes {n_raw} takes the content past the limit {limit}")
            off = decode_lzfse_block(data, payload_off, where, fields, out, len(out) + n_raw, limit, info)
        info.content_bytes = len(out) - start_len
        index += 1


# --------------------------------------------------------------------------
# Self-checks of the table construction (worked examples of the format)
# --------------------------------------------------------------------------


def self_test():
    sym, nb, base = build_fse_table([5, 3], 8, "self-test", "example")
    assert sym == [0, 0, 0, 0, 0, 1, 1, 1], sym
    assert nb == [1, 1, 1, 0, 0, 2, 1, 1], nb
    assert base == [2, 4, 6, 0, 1, 4, 0, 2], base
    freqs = [0] * 20
    freqs[0], freqs[1], freqs[3] = 62, 1, 1
    sym, nb, base = build_fse_table(freqs, 64, "self-test", "L")
    assert (sym[0], nb[0], base[0], sym[1], nb[1], base[1]) == (0, 1, 60, 0, 1, 62)
    assert all(sym[s] == 0 and nb[s] == 0 and base[s] == s - 2 for s in range(2, 62))
    assert (sym[62], nb[62], base[62], sym[63], nb[63], base[63]) == (1, 6, 0, 3, 6, 0)
    # Every table: each symbol's next-state ranges cover 0..N-1 exactly once.
    for freqs, n in (([1] * 64, 64), ([1000, 23, 1], 1024), ([3, 0, 250, 3], 256)):
        sym, nb, base = build_fse_table(freqs, n, "self-test", "cover")
        for s in range(len(freqs)):
            covered = sorted(
                v for st in range(n) if sym[st] == s and freqs[s] for v in range(base[st], base[st] + (1 << nb[st]))
            )
            assert covered == (list(range(n)) if freqs[s] else []), (freqs, s)
    assert D_BASE[63] + (1 << 15) - 1 == 262139 and L_BASE[19] + 255 == 315 and M_BASE[19] + 2047 == 2359
    try:
        build_fse_table([5, 2], 8, "self-test", "short")
    except DecodeError:
        pass
    else:
        raise AssertionError("a table summing below N was accepted")


# --------------------------------------------------------------------------
# Mutations the decoder must reject
# --------------------------------------------------------------------------


def encode_v2_frequencies(values):
    """The inverse of decode_v2_frequencies, used to build altered headers."""
    bits = 0
    pos = 0
    for v in values:
        if v < 2:
            n, code = 2, v << 1
        elif v < 4:
            n, code = 3, 1 | ((v - 2) << 2)
        elif v < 8:
            n, code = 5, 3 | ((v - 4) << 3)
        elif v < 24:
            n, code = 8, 7 | ((v - 8) << 4)
        else:
            n, code = 14, 15 | ((v - 24) << 4)
        bits |= code << pos
        pos += n
    return bits.to_bytes((pos + 7) // 8, "little")


def _set_u32(stream, at, value):
    s = bytearray(stream)
    struct.pack_into("<I", s, at, value)
    return bytes(s)


def _with_v2_tables(stream, freqs, extra_header_bytes=b""):
    """Rewrites the first block (a bvx2) of 'stream' with other frequencies."""
    n_raw, w0, w1, w2 = struct.unpack_from("<IQQQ", stream, 4)
    old_size = w2 & 0xFFFFFFFF
    table = encode_v2_frequencies(freqs) + extra_header_bytes
    w2 = (w2 & ~0xFFFFFFFF) | (32 + len(table))
    return stream[:4] + struct.pack("<IQQQ", n_raw, w0, w1, w2) + table + stream[old_size:]


def _flip(stream, at, mask):
    s = bytearray(stream)
    s[at] ^= mask
    return bytes(s)


def mutations(vectors):
    """(name, stream) pairs, each breaking one rule of the format."""
    with open(os.path.join(vectors, "text-4096.lzfse"), "rb") as f:
        v2 = f.read()
    with open(os.path.join(vectors, "run-24.lzfse"), "rb") as f:
        vn = f.read()
    with open(os.path.join(vectors, "handmade-v1-header.lzfse"), "rb") as f:
        v1 = f.read()
    info = BlockInfo("bvx2", 0)
    _, payload_at, fields = parse_v2_header(v2, 0, "mutation", info)
    freqs = fields["freqs"]
    lit_end = payload_at + fields["n_literal_payload_bytes"]
    lmd_end = lit_end + fields["n_lmd_payload_bytes"]
    assert fields["literal_bits"] < 0 and fields["lmd_bits"] < 0
    top = max(range(104, 360), key=lambda i: freqs[i])
    short_lit = list(freqs)
    short_lit[top] -= 1
    long_lit = list(freqs)
    long_lit[top] += 1
    short_l = list(freqs)
    short_l[max(range(20), key=lambda i: freqs[i])] -= 1
    (w2,) = struct.unpack_from("<Q", v2, 24)
    big_d_state = v2[:24] + struct.pack("<Q", (w2 & ~(0x3FF << 52)) | (256 << 52)) + v2[32:]

    out = [
        ("v2 n_raw_bytes one too many", _set_u32(v2, 4, 4097)),
        ("v2 n_raw_bytes one too few", _set_u32(v2, 4, 4095)),
        ("v2 literal padding bit set", _flip(v2, lit_end - 1, 0x80)),
        ("v2 LMD padding bit set", _flip(v2, lmd_end - 1, 0x80)),
        ("v2 literal table sums to 1023", _with_v2_tables(v2, short_lit)),
        ("v2 literal table sums to 1025", _with_v2_tables(v2, long_lit)),
        ("v2 L table sums to 63", _with_v2_tables(v2, short_l)),
        ("v2 header_size leaves a spare byte", _with_v2_tables(v2, freqs, b"\0")),
        ("v2 trailing byte after bvx$", v2 + b"\0"),
        ("v2 d_state 256", big_d_state),
        ("lzvn n_raw_bytes one too many", _set_u32(vn, 4, 25)),
        ("lzvn n_raw_bytes one too few", _set_u32(vn, 4, 23)),
        ("lzvn byte after eos", _set_u32(vn[:12 + 15] + b"\0" + vn[12 + 15:], 8, 16)),
        ("lzvn eos cut short", _set_u32(vn[:12 + 14] + vn[12 + 15:], 8, 14)),
        ("lzvn n_raw_bytes 0", _set_u32(vn, 4, 0)),
        ("v1 literal_bits +1", v1[:28] + struct.pack("<i", 1) + v1[32:]),
        ("v1 literal_bits -8", v1[:28] + struct.pack("<i", -8) + v1[32:]),
        ("raw then LZVN copy reaching before the content",
         b"bvx-" + struct.pack("<I", 2) + b"ab" + b"bvxn" + struct.pack("<II", 3, 10) + bytes([0x00, 0x03, 0x06]) + bytes(7) + b"bvx$"),
    ]
    # Every proper prefix of a stream is truncated.
    prefixes = [("every proper prefix of text-4096.lzfse", [v2[:n] for n in range(len(v2))]),
                ("every proper prefix of run-24.lzfse", [vn[:n] for n in range(len(vn))])]
    # The header rewriting itself must be faithful, or the cases above prove nothing.
    control = _with_v2_tables(v2, freqs)
    return out, prefixes, control


# --------------------------------------------------------------------------
# Deterministic inputs
# --------------------------------------------------------------------------

MASK64 = (1 << 64) - 1


class SplitMix64:
    def __init__(self, seed):
        self.state = seed & MASK64

    def next(self):
        self.state = (self.state + 0x9E3779B97F4A7C15) & MASK64
        z = self.state
        z = ((z ^ (z >> 30)) * 0xBF58476D1CE4E5B9) & MASK64
        z = ((z ^ (z >> 27)) * 0x94D049BB133111EB) & MASK64
        return z ^ (z >> 31)

    def bytes(self, n):
        words = (n + 7) // 8
        nxt = self.next
        return b"".join(nxt().to_bytes(8, "little") for _ in range(words))[:n]


SENTENCES = [
    "Ada Lovelace moved to a new flat on Harbour Street last spring.",
    "Her phone number changed twice, so the card keeps both numbers.",
    "Birthdays are shown a week ahead in the reminders pane.",
    "The family group now lists fourteen people and two pets.",
    "Merging duplicate cards keeps every address and photo.",
    "Emails from the old domain still arrive at the new inbox.",
    "A note on the card says to call after six in the evening.",
    "The office moved to the third floor of the library building.",
    "Nicknames help the search find Bob when you type Robert.",
    "Groups can be exported as a single file for the choir.",
    "The photo was cropped to a square and stored at 512 pixels.",
    "Anniversaries repeat every year on the same calendar day.",
    "Postal codes are checked against the country of the address.",
    "The work phone rings through to the front desk after hours.",
    "Sync finished with three new cards and one deleted entry.",
    "A related person field links Maria to her brother Tomas.",
]


def prose(n, seed):
    rng = SplitMix64(seed)
    parts = []
    size = 0
    while size < n:
        s = SENTENCES[rng.next() % len(SENTENCES)] + (" " if rng.next() % 5 else "\n")
        parts.append(s)
        size += len(s)
    return "".join(parts).encode()[:n]


def log_lines(n, seed):
    rng = SplitMix64(seed)
    levels = ["INFO", "INFO", "INFO", "DEBUG", "WARN"]
    what = ["contact updated", "contact created", "photo resized", "group synced", "card merged"]
    parts = []
    size = 0
    t = 1714564800
    while size < n:
        r = rng.next()
        t += r % 7
        line = (
            f"2024-05-01T{(t // 3600) % 24:02d}:{(t // 60) % 60:02d}:{t % 60:02d}Z "
            f"{levels[r % 5]} addressbook: {what[(r >> 8) % 5]} id={(r >> 16) % 100000:05d} "
            f"field={['email', 'phone', 'address', 'note'][(r >> 40) % 4]}\n"
        )
        parts.append(line)
        size += len(line)
    return "".join(parts).encode()[:n]


def mixed(n, seed):
    rng = SplitMix64(seed)
    out = bytearray()
    text = True
    while len(out) < n:
        chunk = 1024 + rng.next() % (7 * 1024 + 1)
        if text:
            out += prose(chunk, rng.next())
        else:
            out += rng.bytes(chunk)
        text = not text
    return bytes(out[:n])


def word_salad(n, seed):
    """Short words from a small vocabulary: nearly every word is a short
    match, so blocks fill up on triples rather than on literals."""
    rng = SplitMix64(seed)
    vocab = [rng.bytes(3 + rng.next() % 6).hex()[: 3 + i % 6].encode() for i in range(64)]
    out = bytearray()
    while len(out) < n:
        r = rng.next()
        out += vocab[r % 64]
        out += b" ,.;\n"[(r >> 8) % 5 : (r >> 8) % 5 + 1]
    return bytes(out[:n])


def far_repeats(seed):
    """Copies at distances near and beyond the longest LZFSE distance (262 139)."""
    rng = SplitMix64(seed)
    a = rng.bytes(240 * 1024)
    b = rng.bytes(30 * 1024)
    # a's start comes back 270 KiB later: too far for one match.
    return a + b + a[:6000] + a[-4000:] + a[100000:104000]


def at_distance(distance, seed):
    """Random bytes whose first 40 000 come back exactly 'distance' bytes later."""
    a = SplitMix64(seed).bytes(distance)
    return a + a[:40000]


def sweep_inputs():
    """Many sizes around the block-type and field thresholds, two kinds each."""
    sizes = list(range(0, 41)) + [100, 271, 272, 287, 315, 316, 1000, 4094, 4095, 4096, 4097, 4098,
                                  8192, 39999, 40000, 40001, 65535, 65536, 65537]
    text = prose(65537, 3)
    rng = SplitMix64(4)
    blend = bytearray()
    while len(blend) < 65537:
        r = rng.next()
        blend += bytes([r & 0xFF]) * ((r >> 8) % 40) + rng.bytes((r >> 16) % 24)
    return [(f"prose-{n}", text[:n]) for n in sizes] + [(f"blend-{n}", bytes(blend[:n])) for n in sizes]


def generated_inputs():
    text = prose(8192, 7)
    return [
        ("gen-empty", b""),
        ("gen-1", b"A"),
        ("gen-7", text[:7]),
        ("gen-8", text[:8]),
        ("gen-8-run", b"a" * 8),
        ("gen-4095", text[:4095]),
        ("gen-4096", text[:4096]),
        ("gen-4097", text[:4097]),
        ("gen-random-4096", SplitMix64(99).bytes(4096)),
        ("gen-random-300k", SplitMix64(42).bytes(300 * 1024)),
        ("gen-logs-200k", log_lines(200 * 1024, 11)),
        ("gen-mixed-1m", mixed(1024 * 1024, 0xC0FFEE + 1)),
        ("gen-zeros-5m", bytes(5 * 1024 * 1024)),
        ("gen-words-512k", word_salad(512 * 1024, 5)),
        ("gen-far-repeats", far_repeats(77)),
        ("gen-distance-262139", at_distance(262139, 8)),
        ("gen-distance-262140", at_distance(262140, 9)),
    ]


# --------------------------------------------------------------------------
# Command line
# --------------------------------------------------------------------------


def _block_summary(blocks):
    parts = []
    for b in blocks:
        if parts and parts[-1][0] == b.kind:
            parts[-1][1] += 1
        else:
            parts.append([b.kind, 1])
    return " ".join(k if c == 1 else f"{k}x{c}" for k, c in parts)


class Report:
    def __init__(self):
        self.passed = 0
        self.failed = 0
        self.failures = []

    def ok(self, name, detail):
        self.passed += 1
        print(f"PASS {name}: {detail}")

    def fail(self, name, detail):
        self.failed += 1
        self.failures.append(f"{name}: {detail}")
        print(f"FAIL {name}: {detail}")


def _first_difference(a, b):
    for i in range(min(len(a), len(b))):
        if a[i] != b[i]:
            return i
    return min(len(a), len(b))


def _check_decodes_to(report, name, stream, expected, notes_fail):
    blocks = []
    t0 = time.perf_counter()
    try:
        content = decode_stream(stream, len(expected), blocks)
    except DecodeError as e:
        report.fail(name, f"rejected: {e}")
        return None
    except Exception as e:  # noqa: BLE001 - a checker bug must still be a failure
        report.fail(name, f"decoder crashed: {type(e).__name__}: {e}")
        return None
    elapsed = time.perf_counter() - t0
    if content != expected:
        report.fail(
            name,
            f"decodes to {len(content)} bytes, expected {len(expected)}; first difference at "
            f"byte {_first_difference(content, expected)}",
        )
        return None
    notes = [f"block {i} ({b.kind}): {n}" for i, b in enumerate(blocks) for n in b.notes]
    cross = sum(b.cross_block_matches for b in blocks)
    far = max((b.max_distance for b in blocks), default=0)
    detail = (
        f"{len(expected)} -> {len(stream)} bytes, {_block_summary(blocks)}, "
        f"{cross} cross-block matches, longest distance {far}, decoded in {elapsed:.2f}s"
    )
    if notes and notes_fail:
        report.fail(name, detail + "; " + "; ".join(notes))
        return None
    report.ok(name, detail + ("" if not notes else " (notes: " + "; ".join(notes) + ")"))
    return blocks


def _check_rejected(report, name, stream):
    try:
        decode_stream(stream, 64 << 20)
    except DecodeError as e:
        report.ok(name, f"rejected: {e}")
    except Exception as e:  # noqa: BLE001
        report.fail(name, f"decoder crashed instead of rejecting: {type(e).__name__}: {e}")
    else:
        report.fail(name, "accepted")


def main(argv):
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--encoder", required=True, help="path to kinbook-lzfse")
    ap.add_argument("--vectors", required=True, help="folder with NAME.bin / NAME.lzfse pairs")
    ap.add_argument(
        "--allow-notes",
        action="store_true",
        help="do not fail our encoder's streams for permitted oddities (unread bits, nonzero unused bits)",
    )
    args = ap.parse_args(argv)
    report = Report()
    t_start = time.perf_counter()

    try:
        self_test()
        report.ok("self-test", "FSE table construction matches the worked examples")
    except AssertionError as e:
        report.fail("self-test", f"table construction is wrong: {e}")

    names = sorted(os.listdir(args.vectors))
    print("== reference vectors")
    for fname in names:
        if not fname.endswith(".lzfse") or fname.startswith("corrupt-"):
            continue
        stem = fname[: -len(".lzfse")]
        bin_path = os.path.join(args.vectors, stem + ".bin")
        if not os.path.exists(bin_path):
            report.fail(f"vector {stem}", "no matching .bin")
            continue
        with open(os.path.join(args.vectors, fname), "rb") as f:
            stream = f.read()
        with open(bin_path, "rb") as f:
            expected = f.read()
        _check_decodes_to(report, f"vector {stem}", stream, expected, notes_fail=False)

    print("== corrupt vectors")
    for fname in names:
        if not (fname.startswith("corrupt-") and fname.endswith(".lzfse")):
            continue
        with open(os.path.join(args.vectors, fname), "rb") as f:
            stream = f.read()
        _check_rejected(report, f"corrupt {fname[:-6]}", stream)

    print("== altered streams")
    try:
        altered, prefixes, control = mutations(args.vectors)
    except (OSError, AssertionError, DecodeError) as e:
        report.fail("altered streams", f"cannot build them from the vectors: {e}")
        altered, prefixes, control = [], [], b""
    if control:
        with open(os.path.join(args.vectors, "text-4096.lzfse"), "rb") as f:
            if control == f.read():
                report.ok("altered control", "re-encoding the v2 header unchanged gives the same bytes")
            else:
                report.fail("altered control", "re-encoding the v2 header unchanged changes it")
    for name, stream in altered:
        _check_rejected(report, f"altered {name}", stream)
    for name, group in prefixes:
        bad = []
        for stream in group:
            try:
                decode_stream(stream, 64 << 20)
                bad.append(f"{len(stream)}: accepted")
            except DecodeError:
                pass
            except Exception as e:  # noqa: BLE001
                bad.append(f"{len(stream)}: {type(e).__name__}: {e}")
        if bad:
            report.fail(f"altered {name}", "not rejected at lengths " + "; ".join(bad[:5]))
        else:
            report.ok(f"altered {name}", f"all {len(group)} rejected")

    print("== our encoder")
    inputs = []
    for fname in names:
        if fname.endswith(".bin"):
            with open(os.path.join(args.vectors, fname), "rb") as f:
                inputs.append((fname[:-4], f.read()))
    inputs += generated_inputs()
    seen_kinds = {}
    total_cross = 0
    multi_block_v2 = False
    with tempfile.TemporaryDirectory(prefix="lzfse-check-") as tmp:
        for name, content in inputs:
            src = os.path.join(tmp, name + ".in")
            dst = os.path.join(tmp, name + ".lzfse")
            with open(src, "wb") as f:
                f.write(content)
            t0 = time.perf_counter()
            proc = subprocess.run([args.encoder, "compress", src, dst], capture_output=True, text=True)
            enc_time = time.perf_counter() - t0
            label = f"encoder {name}"
            if proc.returncode != 0:
                report.fail(label, f"kinbook-lzfse exited {proc.returncode}: {proc.stderr.strip()}")
                continue
            with open(dst, "rb") as f:
                stream = f.read()
            print(f"     {name}: encoded in {enc_time:.2f}s")
            blocks = _check_decodes_to(report, label, stream, content, notes_fail=not args.allow_notes)
            if blocks:
                for b in blocks:
                    seen_kinds[b.kind] = seen_kinds.get(b.kind, 0) + 1
                total_cross += sum(b.cross_block_matches for b in blocks)
                if sum(1 for b in blocks if b.kind == "bvx2") > 1:
                    multi_block_v2 = True
            os.remove(src)
            os.remove(dst)

    print("== our encoder, size sweep")
    with tempfile.TemporaryDirectory(prefix="lzfse-sweep-") as tmp:
        bad = []
        cases = sweep_inputs()
        src = os.path.join(tmp, "in")
        dst = os.path.join(tmp, "out.lzfse")
        for name, content in cases:
            with open(src, "wb") as f:
                f.write(content)
            proc = subprocess.run([args.encoder, "compress", src, dst], capture_output=True, text=True)
            if proc.returncode != 0:
                bad.append(f"{name}: kinbook-lzfse exited {proc.returncode}")
                continue
            with open(dst, "rb") as f:
                stream = f.read()
            blocks = []
            try:
                if decode_stream(stream, len(content), blocks) != content:
                    bad.append(f"{name}: decodes to different bytes")
                notes = [n for b in blocks for n in b.notes]
                if notes and not args.allow_notes:
                    bad.append(f"{name}: {'; '.join(notes)}")
            except DecodeError as e:
                bad.append(f"{name}: rejected: {e}")
            except Exception as e:  # noqa: BLE001
                bad.append(f"{name}: decoder crashed: {type(e).__name__}: {e}")
            for b in blocks:
                seen_kinds[b.kind] = seen_kinds.get(b.kind, 0) + 1
        if bad:
            report.fail("encoder size sweep", f"{len(bad)} of {len(cases)} inputs: " + " | ".join(bad[:8]))
        else:
            report.ok("encoder size sweep", f"all {len(cases)} inputs decode exactly")

    print("== summary")
    print("block types in our encoder's streams: " + ", ".join(f"{k} x{v}" for k, v in sorted(seen_kinds.items())))
    print(f"matches in our streams reaching into an earlier block: {total_cross}")
    if not multi_block_v2:
        report.fail("coverage", "no input produced a stream with more than one bvx2 block")
    print(f"total time {time.perf_counter() - t_start:.1f}s")
    for line in report.failures:
        print("  failed: " + line)
    print(f"{report.passed} passed, {report.failed} failed")
    return 1 if report.failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
