/*
 * guestprep tools images: which guest-tools ISO image serves a guest and
 * where it is, and reading such an image so that every byte is checked
 * against its signed block hashes first.
 *
 * Images live in "isoimages" below the host's library directory, beside
 * the signed image map "isoimages_manifest.txt" (and its ".sig"). Each
 * image has a hash-data file beside it (IMAGE".sha": a header, one SHA-256
 * hash per block of the image, and a PEM PKCS#7 signature embedded at its
 * end or in IMAGE".sig"). Every refusal is one "ToolsISO: " log line.
 *
 * Process-wide state: the refresh counter, the tools directory (fixed by
 * the first successful ToolsISO_GetImagePath) and the cached image name,
 * changed only by atomic operations; every function is safe to call from
 * several threads.
 */
#ifndef GUESTPREP_TOOLSISO_H
#define GUESTPREP_TOOLSISO_H

#include "guestprep/common.h"

GUESTPREP_EXTERN_C_BEGIN

/* Image naming and location */

/* The refresh counter (starts at 1). Bump it when the image a guest needs
 * may have changed: the cached image name is then chosen again. */
GUESTPREP_API uint32_t ToolsISO_GetRefreshCount(void);
GUESTPREP_API void ToolsISO_UpdateRefreshCount(void);

/* The base image name ("windows.iso", "linux.iso"...) the built-in table
 * gives the numeric guest id, or null. Constant text. */
GUESTPREP_API const char *ToolsISO_GetImageBaseName(uint32_t guestId);

/* Whether name is an acceptable image file name: 5 to 255 bytes ending in
 * ".iso", before it only ASCII letters, digits, "-", "." and "_". */
GUESTPREP_API bool ToolsISO_ValidateName(const char *name);

/* The canonical absolute path (links followed), or a copy of path when it
 * cannot be resolved (logged). A new string. */
GUESTPREP_API char *ToolsISO_GetRealPath(const char *path);

/* The whole file (at most 0x10000000 bytes) in a new buffer with a zero
 * byte after it; *size excludes that byte. False, logged, on failure. */
GUESTPREP_API bool ToolsISO_ReadFile(const char *path, uint8_t **buffer, size_t *size);

/* Names and locates the tools image for guestOSKey below toolsDir (the
 * host's library directory): toolsDir/"isoimages"/NAME in *path (a new
 * string). hint (may be null) is an image name the virtual machine asks
 * for; it must be one the image map (or, without a map, the built-in
 * table) names. signatureRequired refuses a map without a ".sig". The
 * optional outputs get the name without its extension (a new string) and
 * the kind: 2 for a Windows guest, 4 otherwise. False, with *path null,
 * when no image serves the guest. */
GUESTPREP_API bool ToolsISO_GetImagePath(const char *toolsDir, const char *guestOSKey,
                                         const char *hint, bool signatureRequired, char **path,
                                         char **baseName, uint32_t *kind);

/* Whether signature (PEM PKCS#7, detached) is the maker's over data;
 * certPath null means the maker's bundle. The reason for a no is logged. */
GUESTPREP_API bool ToolsISO_VerifySignature(const char *certPath, const void *signature,
                                            size_t signatureLength, const void *data,
                                            size_t dataLength);

/* Hash data */

/* The hash-data file's header: little-endian on disk, 104 bytes. */
#define TOOLSISO_HASH_MAGIC "A Brimle External Hashdata File"
typedef struct ToolsIsoHashHeader {
  char magic[32];
  uint32_t metadataLength;
  uint8_t reserved1[8];
  uint32_t blockSize;
  uint32_t hashSize;
  uint32_t hashFileBlockSize;
  uint8_t reserved2[8];
  uint64_t firstHashOffset;
  uint64_t hashCount;
  uint64_t signatureOffset;
  uint64_t signatureSize;
  char hashAlgo[8];
} ToolsIsoHashHeader;

/* A loaded hash-data file: header (decoded) and the file's bytes. */
typedef struct ToolsIsoHashInfo {
  ToolsIsoHashHeader header;
  uint8_t *data;
  uint64_t size;
} ToolsIsoHashInfo;

/* Checks a hash-data file (every header rule, logged); on success the
 * record owns buffer (malloc'd), on failure the caller still does. */
GUESTPREP_API ToolsIsoHashInfo *ToolsISO_ParseHashData(uint8_t *buffer, uint64_t size);
GUESTPREP_API void ToolsISO_FreeHashInfo(ToolsIsoHashInfo *hashInfo);

/* Whether length bytes of image data read at offset (a multiple of the
 * block size) match the signed hashes. keepGoing logs every mismatching
 * block before answering. */
GUESTPREP_API bool ToolsISO_VerifyHashes(const ToolsIsoHashInfo *hashInfo, uint64_t offset,
                                         const void *data, size_t length, bool keepGoing);

/* The signed hash data of a local image (IMAGE".sha" beside its canonical
 * path). Not required and absent: true with *hashInfo null. */
GUESTPREP_API bool ToolsISO_GetLocalFileHashInfo(const char *imagePath, uint64_t imageSize,
                                                 bool required, ToolsIsoHashInfo **hashInfo);

/* An open HTTP connection (see ToolsISO_GetHttpHashInfo). */
typedef struct HttpConnection HttpConnection;

/* The signed hash data of an image on a web server (".sha" inserted after
 * the URL's first ".iso"). connection may be null: one is opened and
 * closed for this call. */
GUESTPREP_API bool ToolsISO_GetHttpHashInfo(HttpConnection *connection, const char *imageUrl,
                                            uint64_t imageSize, bool required,
                                            ToolsIsoHashInfo **hashInfo);

/* A local image opened for verified reading. */
typedef struct ToolsIsoLocalFile ToolsIsoLocalFile;

enum {
  TOOLSISO_OPEN_OK = 0,
  TOOLSISO_OPEN_FAILED = 1,     /* the image cannot be opened or sized */
  TOOLSISO_OPEN_BAD_HASHES = 2, /* its hash data or signature was refused */
};

/* Opens imagePath and its hash data (required: refuse an image without).
 * Returns a TOOLSISO_OPEN_* value; *handle is set on success. */
GUESTPREP_API uint32_t ToolsISO_LocalFileOpen(const char *imagePath, bool required,
                                              ToolsIsoLocalFile **handle);

/* Reads length bytes at offset (fewer at the end of the image; the count
 * goes to *bytesRead when it is not null, else a short read fails). Data
 * that fails its hashes is never handed out: false, logged. */
GUESTPREP_API bool ToolsISO_LocalFileReadCB(void *handle, void *buffer, size_t length,
                                            uint64_t offset, size_t *bytesRead);
/* The same with a short read a failure: the ISO reader's read callback. */
GUESTPREP_API bool ToolsISO_LocalFileIsoReadCB(void *handle, void *buffer, size_t length,
                                               uint64_t offset);
/* Closes the image and frees the handle: the ISO reader's close callback. */
GUESTPREP_API bool ToolsISO_LocalFileCloseCB(void *handle);

GUESTPREP_EXTERN_C_END

#endif /* GUESTPREP_TOOLSISO_H */
