/*
 * A tools image on a web server, read so that every byte handed out has
 * been checked against the image's signed hash data first: the reader of
 * "guestprep tools verify URL" and of the benchmarks.
 *
 * The reader fetches whole aligned blocks with ranged GETs into a window of
 * its own, checks the blocks a read touches against their hashes, and only
 * then copies them out; a block that fails fails the reads that touch it,
 * never its neighbours. Reads in order grow a read-ahead (64 KiB doubling
 * up to 4 MiB) so that each block is fetched once; a read elsewhere starts
 * small again, so scattered reads fetch little more than they use.
 *
 * A reader is used by one thread at a time. The callbacks fit
 * Iso9660_OpenWithReader like the local image's.
 */
#ifndef GUESTPREP_TOOLSISO_HTTPREADER_H
#define GUESTPREP_TOOLSISO_HTTPREADER_H

#include <cstddef>
#include <cstdint>

#include "guestprep/toolsiso.h"

struct ToolsIsoHttpReader;

/* Connects to imageUrl's server, sizes the image and loads its signed hash
 * data (required: refuse an image without). A TOOLSISO_OPEN_* value (1 also
 * when the server cannot be reached); *reader is set on success. */
uint32_t ToolsISO_HttpReaderOpen(const char *imageUrl, bool required, ToolsIsoHttpReader **reader);

/* The same with hash data the caller already trusts (a benchmark without
 * the maker's certificates); takes hashInfo, also on failure. */
uint32_t ToolsISO_HttpReaderOpenTrusted(const char *imageUrl, ToolsIsoHashInfo *hashInfo,
                                        ToolsIsoHttpReader **reader);

/* The image's size in bytes. */
uint64_t ToolsISO_HttpReaderSize(const ToolsIsoHttpReader *reader);

/* Whether reads are checked (false: hash data was optional and absent). */
bool ToolsISO_HttpReaderHasHashes(const ToolsIsoHttpReader *reader);

/* The signed hash data reads are checked against, or null. */
const ToolsIsoHashInfo *ToolsISO_HttpReaderHashInfo(const ToolsIsoHttpReader *reader);

/* Reads as ToolsISO_LocalFileReadCB does: length bytes at offset, fewer at
 * the end when bytesRead is given (else a short read fails); any offset and
 * length. False, logged, when a touched block fails its hashes or the fetch
 * fails; nothing unchecked reaches buffer. */
bool ToolsISO_HttpReaderReadCB(void *handle, void *buffer, size_t length, uint64_t offset,
                               size_t *bytesRead);
bool ToolsISO_HttpReaderIsoReadCB(void *handle, void *buffer, size_t length, uint64_t offset);

/* Closes the connection and frees the reader; whether the close succeeded. */
bool ToolsISO_HttpReaderCloseCB(void *handle);

/* What the reader has done so far. */
struct ToolsIsoHttpReaderStats {
  uint64_t requests;         // ranged GETs of image data
  uint64_t bytesFetched;     // image bytes those GETs brought
  uint64_t bytesVerified;    // image bytes checked against their hashes
  uint64_t bytesDelivered;   // bytes copied out to callers
  uint64_t connectionBytes;  // everything the connection received (hash data too)
};
void ToolsISO_HttpReaderGetStats(const ToolsIsoHttpReader *reader, ToolsIsoHttpReaderStats *stats);

#endif
