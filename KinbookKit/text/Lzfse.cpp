#include "KinbookKit/text/Lzfse.h"

#include "KinbookKit/text/LzfseEncoder.h"
#include "KinbookKit/text/LzfseFormat.h"
#include "KinbookKit/text/LzvnEncoder.h"

#include <algorithm>

namespace kinbook {

using namespace lzfse;

std::string_view describe(LzfseError error) {
    switch (error) {
    case LzfseError::truncated:
        return "the compressed data ends too early";
    case LzfseError::badBlockMagic:
        return "the compressed data holds an unknown block type";
    case LzfseError::sizeLimitExceeded:
        return "the decompressed data would be larger than allowed";
    case LzfseError::badBlockHeader:
        return "a block header of the compressed data is invalid";
    case LzfseError::badFrequencyTable:
        return "a frequency table of the compressed data is invalid";
    case LzfseError::badState:
        return "a decoder state of the compressed data is out of range";
    case LzfseError::badBitStream:
        return "an entropy-coded stream of the compressed data is invalid";
    case LzfseError::badDistance:
        return "the compressed data refers to bytes before its start";
    case LzfseError::undefinedOpcode:
        return "the compressed data holds an undefined instruction";
    case LzfseError::contentSizeMismatch:
        return "a block of the compressed data does not produce the size it declares";
    }
    return "the compressed data is invalid";
}

namespace {

void appendU32(std::vector<std::uint8_t>& out, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

void appendRaw(std::vector<std::uint8_t>& out, std::span<const std::uint8_t> content) {
    appendU32(out, magicRaw);
    appendU32(out, static_cast<std::uint32_t>(content.size()));
    out.insert(out.end(), content.begin(), content.end());
}

// The LZFSE encoder keeps 32-bit positions; larger inputs are cut into
// independent segments, each well below that.
constexpr std::size_t segmentSize = std::size_t{1} << 30;

} // namespace

std::vector<std::uint8_t> lzfseCompress(std::span<const std::uint8_t> input) {
    std::vector<std::uint8_t> out;
    if (input.size() < lzvnThreshold) {
        appendRaw(out, input);
    } else if (input.size() < lzfseThreshold) {
        std::vector<std::uint8_t> payload = encodeLzvnPayload(input);
        if (payload.size() < input.size()) {
            out.reserve(12 + payload.size() + 4);
            appendU32(out, magicLzvn);
            appendU32(out, static_cast<std::uint32_t>(input.size()));
            appendU32(out, static_cast<std::uint32_t>(payload.size()));
            out.insert(out.end(), payload.begin(), payload.end());
        } else {
            appendRaw(out, input);
        }
    } else {
        out.reserve(input.size() / 2 + 64);
        for (std::size_t start = 0; start < input.size(); start += segmentSize) {
            encodeLzfseBlocks(input.subspan(start, std::min(segmentSize, input.size() - start)), out);
        }
    }
    appendU32(out, magicEndOfStream);
    return out;
}

} // namespace kinbook
