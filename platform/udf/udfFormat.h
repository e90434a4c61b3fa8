/*
 * On-disc layout shared by the UDF reader and its tests: little-endian
 * fields, descriptor tag identifiers, the tag checksum and CRC, and CS0
 * name decoding.
 */
#ifndef GUESTPREP_PLATFORM_UDFFORMAT_H
#define GUESTPREP_PLATFORM_UDFFORMAT_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/util/bytes.h"

namespace gp::udf {

enum : uint16_t {
  kTagPrimaryVolume = 1,
  kTagAnchor = 2,
  kTagPointer = 3,
  kTagPartition = 5,
  kTagLogicalVolume = 6,
  kTagTerminating = 8,
  kTagFileSet = 256,
  kTagFileId = 257,
  kTagAllocExtent = 258,
  kTagFileEntry = 261,
  kTagExtFileEntry = 266,
};

constexpr size_t kTagSize = 16;
constexpr size_t kFidHeader = 38;         // fixed part of a File Identifier Descriptor
constexpr size_t kFileEntryHeader = 176;  // up to the extended attributes
constexpr size_t kExtFileEntryHeader = 216;
constexpr size_t kLvdMapsOffset = 440;  // partition maps in the Logical Volume Descriptor

using gp::Le16;
using gp::Le32;
using gp::Le64;

/* Sum of the tag's bytes except the checksum byte itself (byte 4). */
uint8_t TagChecksum(const uint8_t *tag);

/* CRC-16 with polynomial x^16 + x^12 + x^5 + 1, initial value 0, as the
 * descriptor tags carry it. */
uint16_t Crc16(const uint8_t *data, size_t len);

/* Converts a CS0 d-string body (compression id, then characters) to UTF-8:
 * ids 8 and 254 are 8-bit (Latin-1), 16 and 255 UCS-2 big-endian. False on
 * another id or an odd UCS-2 length. An empty input gives "". */
bool DecodeCs0(const uint8_t *data, size_t len, std::string *out);

}  // namespace gp::udf

#endif
