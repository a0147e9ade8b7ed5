#include <mysql.h>
#include <stdio.h>
#include <string.h>

#include <memory>

#include "conf/connection.private.h"
#include "conf/database.h"
#include "error/asprintf_safe.h"
#include "log/c_string.private.h"
#include "log/messlog.h"

using frask::CString;
using frask::conf::Connection;
using frask::conf::succeeds;

namespace {

constexpr size_t kValueSize = 4096;

/// The connection that a caller passed, or one that was opened in its place and closes with this.
class ConnectionInUse {
 public:
  explicit ConnectionInUse(MYSQL* passed)
      : own_(passed == nullptr ? db_connect() : nullptr),
        handle_(passed == nullptr ? own_.get() : passed) {}

  explicit operator bool() const { return handle_ != nullptr; }
  MYSQL* get() const { return handle_; }

 private:
  Connection own_;
  MYSQL* handle_;
};

struct FreeResult {
  void operator()(MYSQL_RES* result) const { mysql_free_result(result); }
};
using Result = std::unique_ptr<MYSQL_RES, FreeResult>;

/// A column of the first row; null where the result has no such row or column, or an SQL NULL in
/// it.
const char* first_field(MYSQL_RES* result, int column) {
  MYSQL_ROW row = mysql_fetch_row(result);
  const bool exists = column >= 0 && static_cast<unsigned int>(column) < mysql_num_fields(result);
  return row != nullptr && exists ? row[column] : nullptr;
}

/// Sends a query and takes the field of the first row into the buffer, cut to what fits. False when
/// the query fails, be it at once or while its rows arrive; the buffer is then as it was.
template <class Send>
bool query_field(MYSQL* connection, Send send, int column, char (&buffer)[kValueSize]) {
  Result result;
  const bool answered = succeeds(connection, [&] {
    if (send() != 0) return false;
    result.reset(mysql_store_result(connection));
    // A statement without a result, such as an insertion, gives none either, but no number.
    return result != nullptr || mysql_errno(connection) == 0;
  });
  if (!answered) return false;
  const char* field = result ? first_field(result.get(), column) : nullptr;
  snprintf(buffer, sizeof buffer, "%s", field != nullptr ? field : "");
  return true;
}

}  // namespace

const char* get_param_from_bigquery(const char* query, MYSQL* connection, int column) {
  static char value[kValueSize];
  const ConnectionInUse in_use(connection);
  if (!in_use) {
    messlog2(0, 1, "Unable to connect to the mysql database\n");
    return nullptr;
  }
  const auto send = [&] { return mysql_query(in_use.get(), query); };
  if (query_field(in_use.get(), send, column, value)) return value;
  messlog2(0, 1, "Unable to query parameter by query %s: %s\n", query, mysql_error(in_use.get()));
  return nullptr;
}

const char* get_param_query(const char* query, MYSQL* connection) {
  return get_param_from_bigquery(query, connection, 0);
}

const char* get_param(const char* name, MYSQL* connection) {
  const CString query(
      asprintf_safe("select %s from %s where %s='%s'", "val", "misc", "param", name));
  return query ? get_param_query(query.get(), connection) : nullptr;
}

// Deliberate: the texts are this routine's own. The connect message goes without the "the" of the
// one above, and a setting is called a "domain parameter". Pinned by
// GetMailServerParam.HasMessagesOfItsOwn.
const char* get_mail_server_param(const char* name, MYSQL* connection) {
  static char value[kValueSize];
  const ConnectionInUse in_use(connection);
  if (!in_use) {
    messlog2(0, 0, "Unable to connect to mysql database\n");
    return nullptr;
  }
  snprintf(value, sizeof value,
           "select value from ServiceNodeConfiguration where name='%s' and serviceNodeId=1 and "
           "section='mailServer'",
           name);
  const auto send = [&] { return mysql_real_query(in_use.get(), value, strlen(value)); };
  if (query_field(in_use.get(), send, 0, value)) return value;
  messlog2(0, 0, "Unable to query domain parameter %s: %s\n", name, mysql_error(in_use.get()));
  return nullptr;
}
