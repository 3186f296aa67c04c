#pragma once

#include "KinbookKit/Result.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace kinbook {

// Why a compressed Trash file could not be read. Every case is a property of
// the input: the decoder has no other way to fail.
enum class LzfseError {
    truncated,          // the input ends inside a block, or before the end-of-stream block
    badBlockMagic,      // a block starts with an unknown magic number
    sizeLimitExceeded,  // the content would be larger than the caller allows
    badBlockHeader,     // a count or length in a block header is out of range or inconsistent
    badFrequencyTable,  // a frequency table is malformed or does not fill its states exactly
    badState,           // an initial decoder state is out of range
    badBitStream,       // an entropy-coded stream is malformed or runs past its start
    badDistance,        // a match refers to content before the start of the stream
    undefinedOpcode,    // an LZVN block holds an opcode that has no meaning
    contentSizeMismatch // a block produces a different number of bytes than its header says
};

// A short English description of `error`, for logs and the command-line tool.
std::string_view describe(LzfseError error);

// Decompresses a whole LZFSE stream (every block type: raw, LZVN, LZFSE with
// an uncompressed or a compressed header) into one buffer.
//
// The input is untrusted. A stream that is truncated, malformed, lacks its
// end-of-stream block or would produce more than `sizeLimit` bytes fails with
// an error and no partial content. Memory use is bounded by `sizeLimit` plus a
// fixed scratch area: sizes claimed by block headers are only trusted up to
// what the block could actually produce. Bytes after the end-of-stream block
// are ignored, as the reference decoder does.
//
// Pure function; thread-safe.
Result<std::vector<std::uint8_t>, LzfseError> lzfseDecompress(std::span<const std::uint8_t> input,
                                                              std::size_t sizeLimit);

// Compresses `input` into a complete LZFSE stream that any LZFSE decoder reads.
// The block type follows the size of the input, as the reference encoder does:
// a raw block below 8 bytes, one LZVN block below 4096 bytes (raw when LZVN
// does not shrink the input), LZFSE blocks with compressed headers otherwise.
// Unlike the reference encoder, an LZFSE block that would not be smaller than
// its content is written as a raw block instead, so incompressible input grows
// by a few bytes per 40 KB only.
//
// Never fails; pure function; thread-safe.
std::vector<std::uint8_t> lzfseCompress(std::span<const std::uint8_t> input);

} // namespace kinbook
