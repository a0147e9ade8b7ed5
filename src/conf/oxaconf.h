/**
 * @file
 * The panel's runtime configuration: a table of names and values read from a file, and the
 * process-wide one of "/etc/oxa/oxa.conf" with compiled-in defaults behind it.
 *
 * Messages go to the utility log. Those about a configuration file and its memory have the priority
 * of a user-facility warning (12): terminals never show it, syslog files it.
 */
#ifndef FRASK_CONF_OXACONF_H
#define FRASK_CONF_OXACONF_H

#include <stddef.h>

#include "log/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/** One variable; both strings are the table's own. */
typedef struct ConfEntry {
  char* name;  /**< unique in the table; NULL in an unused slot */
  char* value; /**< NULL in an unused slot */
} ConfEntry;

/**
 * A table of variables. All fields zero is a valid empty table without memory of its own.
 *
 * Names are unique. Slots from count to capacity hold NULL, since conf_free_r() frees every slot.
 * The structure itself is allocated by its user with calloc() where conf_free_r() is to free it.
 */
typedef struct ConfR {
  ConfEntry* entries; /**< capacity slots, or NULL */
  size_t capacity;    /**< how many entries there is room for */
  size_t count;       /**< how many there are */
  int sorted; /**< 1 while the entries ascend by name, as strcmp() orders; then lookups halve */
} ConfR;

/**
 * Gives the table its first 20 slots, or makes room for one entry more.
 *
 * @return 0; -1 with errno ENOMEM when memory is exhausted, reported as "Unable to read
 *         configuration: <system text>" at priority 12 unless these would be the first slots
 */
FRASK_API int conf_init_r(ConfR* conf);

/**
 * Stores copies of both strings; the value of a name already in the table is replaced. Room for one
 * more entry is made first, whether or not the name is new. A new name leaves the table unsorted.
 *
 * @return 0; -1 with errno ENOMEM when memory is exhausted, reported by conf_init_r() or as "Unable
 *         to form configuration: <system text>" at priority 12
 */
FRASK_API int conf_set_r(const char* name, const char* value, ConfR* conf);

/** Sorts the entries by name unless they are sorted. */
FRASK_API void conf_finalize_r(ConfR* conf);

/** @return the table's own string, valid until the name is set again or the table freed, or NULL */
FRASK_API const char* conf_get_r(const char* name, ConfR* conf);

/**
 * Reads a configuration file into the table and sorts it. A later line for a name replaces the
 * value of an earlier one.
 *
 * A line is a name of letters, digits and "_", white space, and a value that goes on to the end of
 * the line or to "#". Blank lines and lines that begin with "#" say nothing. White space inside the
 * value is kept; of a run of it at the end only the last character is cut, and only where the run
 * has an odd length, the newline counting as one of the run. So one newline, or one blank before a
 * comment, is cut cleanly, while the value of a line that ends in a blank keeps blank and newline.
 *
 * A line that is malformed is skipped and reported at priority 12 ("Invalid variable definition
 * <line>\nExpected a space after variable name\n" or "...\nExpected a value").
 *
 * @return 0; -1 with errno set when the file cannot be opened ("unable to open configuration file
 *         <path>: <system text>\n") or read to its end ("Unable to read configuration file:
 *         <system text>"), both at priority 12, or when memory is exhausted; the lines that were
 *         read whole before stay in the table
 */
FRASK_API int conf_read_file_r(const char* path, ConfR* conf);

/** Frees the entries and the structure itself, which calloc() or malloc() gave; NULL is allowed. */
FRASK_API void conf_free_r(ConfR* conf);

/** Orders two ConfEntry by name for qsort(3) and bsearch(3). */
FRASK_API int cmp_conf(const void* a, const void* b);

/** The known variables. The two sentinels bound the range and are no settings. */
enum {
  OXA_CONF_MIN,
  OXA_CONF_FRASK_MAILNAMES_D,
  OXA_CONF_RBLSMTPD,
  OXA_CONF_CLIENT_PHP_BIN,
  OXA_CONF_LIB_CRYPTO_PATH,
  OXA_CONF_LIB_SSL_PATH,
  OXA_CONF_AWSTATS_DOC_D,
  OXA_CONF_AWSTATS_TOOLS_D,
  OXA_CONF_AWSTATS_BIN_D,
  OXA_CONF_AWSTATS_ETC_D,
  OXA_CONF_MAILMAN_VAR_D,
  OXA_CONF_MAILMAN_ROOT_D,
  OXA_CONF_PGSQL_DATA_D,
  OXA_CONF_PGSQL_BIN_D,
  OXA_CONF_MYSQL_BIN_D,
  OXA_CONF_MYSQL_VAR_D,
  OXA_CONF_WEB_STAT,
  OXA_CONF_DUMP_D,
  OXA_CONF_DUMP_TMP_D,
  OXA_CONF_NAMED_RUN_ROOT_D,
  OXA_CONF_HTTPD_BIN,
  OXA_CONF_HTTPD_SERVICE,
  OXA_CONF_HTTPD_LOG_D,
  OXA_CONF_HTTPD_INCLUDE_D,
  OXA_CONF_HTTPD_CONF_D,
  OXA_CONF_HTTPD_VHOSTS_D,
  OXA_CONF_MYSQL_SOCKET,
  OXA_CONF_SA_MAX_MAIL_SIZE,
  OXA_CONF_SNI_SUPPORT,
  OXA_CONF_PRODUCT_ROOT_D,
  OXA_CONF_MAX
};

/** The names by index, then NULL. */
FRASK_API extern const char* const theOxaConfNames[OXA_CONF_MAX + 2];
/** The compiled-in defaults by index, then NULL. The panel's tools link to the name as it is. */
FRASK_API extern const char* const theOxaConfDefauls[OXA_CONF_MAX + 2];
/** The product configuration; NULL until it was read successfully, then for good. */
FRASK_API extern ConfR* theOxaConfHash;

/**
 * Reads "/etc/oxa/oxa.conf" into theOxaConfHash unless that was done before. The lookups below call
 * it as needed, so a failed load is tried again by each lookup by name. Nothing here is locked.
 *
 * @return 0; -1 with nothing left behind, reported by conf_read_file_r(), with its errno: ENOENT
 *         without the file, EACCES, EISDIR and others of opening and reading, ENOMEM; or -1 with
 *         errno ENOMEM, reported at priority 3 as "Not enough memory to allocate Frask runtime
 *         configuration structure"
 */
FRASK_API int autoprepend(void);

/**
 * @return the file's value, owned by theOxaConfHash; NULL without the name in the file, or without
 *         the file, with autoprepend()'s errno, which the lookups below leave behind, too
 */
FRASK_API const char* oxaConfGet(const char* name);

/**
 * oxaConfGet() by index; a value that was found once is kept for the life of the process.
 *
 * @param index  OXA_CONF_MIN to OXA_CONF_MAX; it is not checked
 */
FRASK_API const char* oxaConfGetByIndex(int index);

/** @return the file's value for the index, else the compiled-in default; never NULL in its range */
FRASK_API const char* oxaConfGetDefaultByIndex(int index);

/**
 * oxaConfGetDefaultByIndex() by name, the upper sentinel's not among them.
 *
 * @return the value; NULL for any other name, reported at priority 3 as "variable '<name>' was
 * found neither in /etc/oxa/oxa.conf, nor in compile-time defaults"
 */
FRASK_API const char* oxaConfGetDefault(const char* name);

/**
 * realloc(3) that ends the process when memory is exhausted: "alloc(<size>)" through messlog2()
 * with exit code 1. With size 0 the memory is freed and the result is NULL, as the C library does.
 */
FRASK_API void* realloc_safe(void* pointer, size_t size);

#ifdef __cplusplus
}
#endif

#endif
