// PXKit internal — the byte layout of keyed archives (docs/file-formats.md).
//
// Shared by the archiver, the unarchiver, their tests and the fuzz target, which
// need to build archives with a valid header around hand-made contents.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace pxkit::internal::archive {

// Header: magic, version, flags, reserved, payload length, CRC-32 of the payload.
inline constexpr uint8_t kMagic[4] = {'P', 'X', 'K', 'A'};
inline constexpr size_t kHeaderSize = 16;

// Tags of inline values.
enum ValueTag : uint8_t {
  kAbsent = 0x00,  // only as the root
  kNull = 0x01,
  kFalse = 0x02,
  kTrue = 0x03,
  kInt = 0x04,     // zigzag varint
  kUInt = 0x05,    // varint
  kDouble = 0x06,  // 8 bytes, little-endian IEEE 754
  kDate = 0x07,    // 8 bytes, seconds since 2001-01-01 00:00:00 UTC
  kString = 0x08,  // varint length, UTF-8 bytes
  kRef = 0x09,     // varint index into the object table
};

// Tags of object-table entries.
enum ObjectTag : uint8_t {
  kData = 0x10,
  kMutableData = 0x11,
  kArray = 0x12,
  kMutableArray = 0x13,
  kDictionary = 0x14,
  kMutableDictionary = 0x15,
  kCodedObject = 0x16,
};

// CRC-32 (the IEEE polynomial, reflected, as zlib and PNG compute it).
uint32_t crc32(std::span<const uint8_t> bytes) noexcept;

// LEB128 unsigned varint.
void appendVarint(std::string& out, uint64_t value);

// Fills in the header of `archive`: kHeaderSize bytes to overwrite, then the payload.
void sealArchive(std::vector<uint8_t>& archive, uint8_t version);

// A complete archive around `payload`: header with this version, length and checksum.
std::vector<uint8_t> wrapPayload(std::span<const uint8_t> payload, uint8_t version = 1);

}  // namespace pxkit::internal::archive
