/**
 * @file
 * The panel's database: connections with the administrator's credentials, and single values.
 *
 * The settings come from section "frask" of "/etc/oxa/private/dsn.ini", keys "host" (else
 * "localhost"), "port" (else the client library's), "username" (else "admin"), "password" and
 * "dbname" (else "oxa"); the Unix socket is always the configuration value "MYSQL_SOCKET". Without
 * the key "password", and only then, the password is the first line of "/etc/oxa/.oxa.shadow". It
 * is wiped from this library's memory before that is freed; the handle keeps the client library's
 * own copy until mysql_close().
 */
#ifndef FRASK_CONF_DATABASE_H
#define FRASK_CONF_DATABASE_H

#include <mysql.h>
#include <stddef.h>

#include "log/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Connects, which takes a server that does not answer ten seconds at most; a query on the handle
 * may take any time. Nothing is printed, but for what get_ini_conf_var() says of a settings file
 * that cannot be opened.
 *
 * @param error  receives, when the result is NULL, one of the texts below, cut to what fits; may be
 *               NULL with size 0.
 *               "Unable to open admin password file: <system text>",
 *               "Unable to get admin password file stat: <system text>",
 *               "Unable to allocate memory for password",
 *               "Unable to read admin password file: <system text>" (of an empty file too),
 *               "Unable to initialize MySQL connection structure: <system text>" (errno ENOMEM),
 *               "Unable to connect to Frask Database: <server's or client library's text>"
 * @return a handle that the caller closes with mysql_close(), or NULL. errno is then the failing
 *         call's own, or 0 where no system call is the reason (an empty password file, a host name
 *         that is unknown, and all that the server itself refuses) or where the library does not
 *         leave it there (a TCP port that refuses). With a handle it is 0.
 */
FRASK_API MYSQL* frask_db_connect_raw_ex(char* error, size_t size);

/** frask_db_connect_raw_ex(), but a handle with an error in it is closed and NULL returned. */
FRASK_API MYSQL* frask_db_connect_raw(char* error, size_t size);

/**
 * frask_db_connect_raw() and the query "SET NAMES utf8".
 *
 * @param error  besides, when that query fails: "DB error (set names query) <number>: <text>", or
 *               "DB error (set names query): unknown error" where the library gives no number
 * @return a handle even when the query failed; NULL when there is no connection
 */
FRASK_API MYSQL* frask_db_connect_ex(char* error, size_t size);

/** frask_db_connect_ex(), but a handle with an error number in it is closed and NULL returned. */
FRASK_API MYSQL* frask_db_connect(char* error, size_t size);

/** frask_db_connect() by the name that the panel's tools call. */
FRASK_API MYSQL* db_connect_nothrow(char* error, size_t size);

/** db_connect_nothrow() that prints a failure's text with messlog2(), not fatally. */
FRASK_API MYSQL* db_connect(void);

/**
 * One field of the first row that a query gives.
 *
 * get_param() and get_param_query() return through this routine and share its result buffer: each
 * call of one of the three overwrites the result of the one before.
 *
 * @param connection  stays open; NULL to connect with db_connect() for this call alone
 * @param column      from 0; one that the result does not have reads as NULL in SQL does
 * @return at most 4095 bytes of the field in a static buffer; "" without a row or for an SQL NULL;
 *         NULL when the connection or the query fails, reported through messlog2(), not fatally, as
 *         "Unable to connect to the mysql database\n" or "Unable to query parameter by query
 *         <query>: <text>\n". errno, and with it the system error behind the latter, is set only
 *         where the connection broke; it is 0 for what the server refuses, and with a result.
 */
FRASK_API const char* get_param_from_bigquery(const char* query, MYSQL* connection, int column);

/** get_param_from_bigquery() with column 0. */
FRASK_API const char* get_param_query(const char* query, MYSQL* connection);

/**
 * The value ("val") of the parameter ("param") `name` in table "misc".
 *
 * @param name  goes into the query as it is, without any quoting: only ever a fixed identifier
 * @return as get_param_from_bigquery()
 */
FRASK_API const char* get_param(const char* name, MYSQL* connection);

/**
 * The value of the setting `name` in section "mailServer" of service node 1, in table
 * "ServiceNodeConfiguration".
 *
 * @param name        goes into the query as it is, without any quoting: only ever a fixed
 *                    identifier. The query is cut to 4095 bytes.
 * @param connection  as for get_param_from_bigquery()
 * @return as get_param_from_bigquery(), but in a static buffer of its own; its reports are "Unable
 *         to connect to mysql database\n" and "Unable to query domain parameter <name>: <text>\n"
 */
FRASK_API const char* get_mail_server_param(const char* name, MYSQL* connection);

#ifdef __cplusplus
}
#endif

#endif
