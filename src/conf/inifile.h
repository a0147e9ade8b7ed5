/**
 * @file
 * A minimal reader of INI files: one question, one reading of the file; nothing is kept.
 */
#ifndef FRASK_CONF_INIFILE_H
#define FRASK_CONF_INIFILE_H

#include <stddef.h>

#include "log/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Trims a line in place: the comment, which ";" begins wherever it stands, and the white space at
 * both ends go, the white space inside stays.
 *
 * @return the new length
 */
FRASK_API size_t strip_line(char* line);

/**
 * Looks up one value in an INI file, reading the file anew on every call.
 *
 * The first match wins, and a section may be opened more than once. ";" begins a comment wherever
 * it stands, "#" does not. Section and key are compared byte by byte. errno is cleared on entry.
 * The file may hold passwords: the memory that it was read through is wiped, for lines of up to
 * 65536 bytes.
 *
 * @param section  the text between the brackets, its blanks included
 * @return a heap string that the caller frees with free(), "" for an empty value; NULL, silently,
 *         when there is no such regular file, section or key, and when the file cannot be read so
 *         far or memory is exhausted, errno being set then; NULL and one text without a newline,
 *         "Failed to open <path>: <system text>", on standard error when the file exists but cannot
 *         be opened
 */
FRASK_API char* get_ini_conf_var(const char* path, const char* section, const char* key);

/**
 * get_ini_conf_var() read as a boolean.
 *
 * @return 1 for "on", "true" and "yes" in any case and for "1"; 0 for any other text; default_value
 *         when there is no value or an empty one
 */
FRASK_API int get_ini_conf_var_bool(const char* path, const char* section, const char* key,
                                    int default_value);

#ifdef __cplusplus
}
#endif

#endif
