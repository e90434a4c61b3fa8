/*
 * Host files and directories by path.
 *
 * Paths are host paths with "/" separators. A null or empty path, a missing
 * file, a directory where a file was expected (and the reverse) and an
 * unreadable directory are ordinary outcomes: false, -1 or null, and no log
 * line (callers log their own line naming the failed operation).
 * Every string and array handed out is newly allocated; release strings
 * with free() and name lists with File_FreeNameList.
 */
#ifndef GUESTPREP_PLATFORM_FILE_H
#define GUESTPREP_PLATFORM_FILE_H

#include <cstddef>
#include <string>

/* True when path names anything (a symbolic link is followed: a dangling
 * link does not exist). */
bool File_Exists(const char *path);
/* True when path is a directory (or a link to one). */
bool File_IsDirectory(const char *path);
/* True when path is a regular file (or a link to one). */
bool File_IsFile(const char *path);

/* Splits path at its last "/": the directory part is the text before it,
 * without trailing "/" (but "/" itself for a file in the root), the base
 * name the text after it. No "/" gives an empty directory part; a trailing
 * "/" gives an empty base name ("a/b/" is "a/b" and ""). A null path gives
 * two empty strings. Either output may be null. */
void File_GetPathName(const char *path, char **dir, char **base);

/* Splits path into volume (always "" on this host), directory with its
 * trailing "/" (or "") and base name, so that the three concatenated give
 * path back. Each output may be null; a null path gives empty strings. */
void File_SplitName(const char *path, char **volume, char **dir, char **base);

/* dir + "/" + name with no doubled "/" at the seam ("a/" and "/b" give
 * "a/b"; "" and "b" give "b"; "/" and "b" give "/b"). Null when either is
 * null. */
char *File_PathJoin(const char *dir, const char *name);

/* Creates one directory (mode 0777 less umask). False when it exists already
 * or its parent does not. */
bool File_CreateDirectory(const char *path);

/* Creates the directory and its missing parents. True on success or when
 * it already exists as a directory. */
bool File_CreateDirectoryHierarchy(const char *path);

/* Removes an empty directory. */
bool File_DeleteEmptyDirectory(const char *path);

/* Removes the directory and everything below it, without following any
 * symbolic link: links inside are removed as links, their targets stay. A
 * link at path itself is removed as a link. Read-only directories inside
 * are made writable so they can be emptied. False when path does not exist
 * or anything could not be removed (what could be is removed). */
bool File_DeleteDirectoryTree(const char *path);

/* Names of the entries of a directory, sorted bytewise, without "." and
 * ".." (callers that skip those anyway lose nothing). Returns the count and
 * stores a new array (with a null after the last name) in *names when names
 * is not null; -1 on failure (*names then null). */
int File_ListDirectory(const char *dir, char ***names);

/* Frees a list from File_ListDirectory (null is fine). */
void File_FreeNameList(char **names, int count);

/* Copies the bytes and permission bits (less umask, plus owner write) of
 * the regular file src to dst. With overwrite false an existing dst is never replaced (false).
 * The copy goes to a temporary file beside dst that is renamed into place,
 * so a failed copy leaves dst as it was; a symbolic link at dst is
 * replaced, not written through. */
bool File_Copy(const char *src, const char *dst, bool overwrite);

/* Removes a file (not a directory). 0 when it was removed or did not
 * exist, else the system error number (EINVAL for a null or empty path). */
int File_UnlinkIfExists(const char *path);

/* The process user's private temporary directory: "guestprep-<user>" under
 * the system temporary directory, mode 0700, owned by the user and no
 * symbolic link. When that name is taken by anything else, a fresh private
 * directory with a random suffix is used (create must be true). Without
 * create an absent directory gives null. Returns a new string (no
 * trailing "/"), or null. */
char *File_GetSafeTmpDir(bool create);

namespace gp {

// File_GetSafeTmpDir below another root directory (the tests use a scratch
// root in place of the system's).
std::string SafeTmpDirUnder(const std::string &root, const std::string &user, bool create);

}  // namespace gp

#endif
