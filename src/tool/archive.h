/**
 * @file
 * The archive types that a skeleton may come in, and the shell commands that serve them. Paths
 * stand unquoted in those commands: callers pass names without blanks and shell characters.
 */
#ifndef FRASK_TOOL_ARCHIVE_H
#define FRASK_TOOL_ARCHIVE_H

#include "log/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/** 0 stands for "look at the file"; 1 and 3 are in the numbering but nothing uses them. */
typedef int ArchiveType;
enum { ARCHIVE_DETECT = 0, ARCHIVE_ZIP = 2, ARCHIVE_TGZ = 4, ARCHIVE_TAR = 5 };

/** One archive: the record of its type, and its path. It owns none of the strings. */
typedef struct ArchiveDescriptor {
  ArchiveType type;            /**< never ARCHIVE_DETECT */
  const char* name;            /**< for display */
  const char* support_command; /**< succeeds when the tools are installed */
  const char* test_command;    /**< format with "%s" for the archive's path */
  const char* extract_command; /**< format with "%s" for the path and "%s" for the directory */
  const char* file_name;       /**< the archive's path: the buffer that the caller gave */
} ArchiveDescriptor;

/** @{ */
/** The records of the three types; their file_name is NULL. */
FRASK_API extern const ArchiveDescriptor adc_zip;
FRASK_API extern const ArchiveDescriptor adc_tgz;
FRASK_API extern const ArchiveDescriptor adc_tar;
/** @} */

/**
 * Chooses an archive's type: the forced one, else what "/usr/bin/file" says of the content, else
 * what the extension says (".zip", ".tgz", ".tar.gz", ".tar", in any case). What file(1) says of a
 * missing file names the file, so that words in the name decide then. A name that begins with "-"
 * would be taken for options: callers put "./" before it.
 *
 * @param file_name   kept in the descriptor, not copied; never changed
 * @param descriptor  filled on success only
 * @return 0, or -1 when the type is not one of the three or cannot be told
 */
FRASK_API int getArchiveDc(char* file_name, ArchiveDescriptor* descriptor, ArchiveType forced);

/**
 * Only the zip tools are looked for; tar and gzip are part of every system.
 *
 * @return 0 when the server can handle the type, -1 when it is none or the zip tools are missing
 */
FRASK_API int testSupport(const ArchiveDescriptor* descriptor);

/**
 * Tests an archive's size, by the panel's way of counting, and then its integrity.
 *
 * The panel parameter "size_count_type" decides whether the length counts ("byte") or what is
 * allocated (anything else, a failed query included). The limit is 2147483648 bytes.
 *
 * @return 0 good; 1 too large, reported; 2 the archive tool refused it or its command does not fit
 *         into 4096 bytes, reported, or there is no command. The process ends with status 1 when
 *         the database cannot be reached or the file cannot be examined. Other reports carry no
 *         errno of the database's. The database connection is left to process exit.
 */
FRASK_API int testIntegrity(const ArchiveDescriptor* descriptor);

/**
 * Unpacks an archive into an existing directory.
 *
 * @return 0; -1 when the type is none, the command does not fit into 4096 bytes, or it failed,
 * which is reported
 */
FRASK_API int extractTo(const ArchiveDescriptor* descriptor, const char* directory);

/** Runs a shell command. @return 0, or -1 when it is NULL or empty, or failed, which is reported */
FRASK_API int executeCommand(const char* command);

/**
 * Runs a shell command and reports nothing.
 *
 * @return its exit code, 0 to 255; -1 when it is NULL or empty, could not be run, or a signal
 *         ended it
 */
FRASK_API int execute(const char* command);

#ifdef __cplusplus
}
#endif

#endif
