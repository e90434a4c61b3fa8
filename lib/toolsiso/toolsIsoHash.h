/*
 * Internal pieces of the hash-data file: its on-disk header layout, shared
 * by the loader and the publisher's writer, and the hash implementation
 * lookup.
 */
#ifndef GUESTPREP_TOOLSISO_HASH_H
#define GUESTPREP_TOOLSISO_HASH_H

#include <cstddef>
#include <cstdint>

#include "guestprep/toolsiso.h"
#include "platform/crypto/cryptoHash.h"
#include "platform/file/fileIO.h"

namespace gp {

/* Bytes of the header on disk (all little-endian), and the smallest
 * metadata area a loader accepts. */
constexpr size_t kToolsIsoHashHeaderSize = 104;
constexpr uint32_t kToolsIsoMinMetadataLength = 512;
constexpr uint32_t kToolsIsoMinBlockSize = 512;
constexpr uint32_t kToolsIsoMaxBlockSize = 4096;
/* The only algorithm, as the header names it (the zero fills the field). */
constexpr char kToolsIsoHashAlgo[8] = "SHA-256";

/* The header fields from the first kToolsIsoHashHeaderSize bytes of data. */
ToolsIsoHashHeader DecodeToolsIsoHashHeader(const uint8_t *data);

/* The header as it is stored, into kToolsIsoHashHeaderSize bytes at out
 * (the unexamined reserved bytes as the record holds them). */
void EncodeToolsIsoHashHeader(const ToolsIsoHashHeader &header, uint8_t *out);

/* A verified-read handle over an open image whose hash data the caller
 * has already trusted (a benchmark without the maker's certificates).
 * Takes the descriptor (invalidated here) and hashInfo (may be null:
 * reads unchecked). */
ToolsIsoLocalFile *AdoptToolsIsoLocalFile(FileIODescriptor *file, uint64_t size,
                                          ToolsIsoHashInfo *hashInfo);

}  // namespace gp

/* The host implementation of the named algorithm ("SHA-256" only), or null
 * (logged). name must be zero-terminated. */
const CryptoHashImpl *ToolsISO_GetHashImpl(const char *name);

#endif
