/**
 * @file
 * Internationalised domain names: their ASCII form (labels in Punycode behind "xn--") and back, for
 * a bare domain, the host of a URL and the domain of a mail address. Nothing here is locked.
 */
#ifndef FRASK_TEXT_IDN_H
#define FRASK_TEXT_IDN_H

#include "log/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * libidn's result code of the last failed conversion, for idn_strerror(); 0 at first. What is too
 * long for these routines fails with libidn's code for "Invalid length". A conversion that succeeds
 * leaves it as it is.
 */
FRASK_API extern int idn_errno;

/**
 * Converts a domain to ASCII as RFC 3490 says, without unassigned code points and without the
 * STD 3 rules for host names. An ASCII label stays as it is, its capitals included.
 *
 * @param domain  UTF-8
 * @return a string that the caller frees with free(); NULL, silently and with idn_errno set, on
 *         failure. Exhausted memory ends the process: "Allocation failed", status 1.
 */
FRASK_API char* idn_toascii(const char* domain);

/**
 * idn_toascii() that ends the process with status 1 where that gives NULL, after reporting
 * "idn_toascii_safe(<domain>) failed: <idn_strerror() text>" through messlog2().
 */
FRASK_API char* idn_toascii_safe(const char* domain);

/**
 * Converts a domain to UTF-8. A label that is no valid ASCII form stays as it is, as RFC 3490 wants
 * it, so that only malformed UTF-8 fails.
 *
 * @param domain  ASCII, UTF-8, or labels of both
 * @return a string that the caller frees with free(). On failure idn_errno is set and the result is
 *         what the library left there: NULL, or a string that the caller frees all the same.
 *         Exhausted memory ends the process as with idn_toascii().
 */
FRASK_API char* idn_toutf8(const char* domain);

/**
 * Converts the host of a URL to ASCII and leaves the rest as it is.
 *
 * A URL is an optional "ftp://", "http://" or "https://" in small letters, optionally a user part
 * up to the first "@" behind that, a host up to the first "/" or ":", and the rest.
 *
 * @param url  UTF-8; not an earlier result, which is overwritten
 * @return a static buffer that the next call overwrites. NULL, and one report through messlog2(),
 *         where the URL does not match ("regexec() failed: ..."), or where its host cannot be
 *         converted, or the host or the result is longer than 4095 bytes ("idn_toascii() failed:
 *         ..." with idn_errno set, to the code of "Invalid length" for the latter).
 */
FRASK_API char* idn_url_toascii(const char* url);

/**
 * Converts all that stands behind the first "@" of a mail address to ASCII.
 *
 * @param address  UTF-8
 * @return a string that the caller frees with free(); NULL, silently and with idn_errno as it was,
 *         where there is no "@"; NULL with the code of "Invalid length" in idn_errno where more
 *         than INT_MAX bytes stand before it (just below that, the process ends as
 *         asprintf_safe() says). A domain that cannot be converted sets idn_errno and reads
 *         "(null)" in the result.
 */
FRASK_API char* idn_email_toascii(const char* address);

/**
 * idn_email_toascii() that ends the process with status 1 where that gives NULL, after reporting
 * "idn_email_toascii_safe(<address>) failed: <text>" through messlog2(). The text is that of
 * whatever idn_errno held before.
 */
FRASK_API char* idn_email_toascii_safe(const char* address);

/** @return the constant text for a result code; "Unknown error" for a code that is not known */
FRASK_API const char* idn_strerror(int code);

#ifdef __cplusplus
}
#endif

#endif
