#include <mysql.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <syslog.h>

#include <array>

#include "conf/database.h"
#include "conf/inifile.h"
#include "conf/oxaconf.h"
#include "error/asprintf_safe.h"
#include "error/terminate.h"
#include "faults/routines.h"
#include "log/messlog.h"
#include "log/utility_log.h"
#include "text/idn.h"

namespace faults {
namespace {

constexpr auto kNone = Scene::kNothing;
constexpr auto kSister = Share::kSister;
constexpr const char* kIni = "/etc/oxa/private/dsn.ini";
constexpr size_t kLarge = 1 << 20;  ///< bytes for which the C library asks the system

/// A sister road that makes no system call that can fail.
Routine without_calls(const std::string& name, const std::function<std::string()>& call) {
  return {name, call, kNone, kSister, {}, false};
}

ConfR* new_table() {
  return static_cast<ConfR*>(calloc(1, sizeof(ConfR)));
}

std::string read_table() {
  ConfR* conf = new_table();
  const int result = conf_read_file_r("/etc/oxa/oxa.conf", conf);
  const std::string found = text(result == 0 ? conf_get_r("HTTPD_VHOSTS_D", conf) : nullptr);
  conf_free_r(conf);
  return number(result) + " " + found;
}

/// A table with a variable that takes some memory.
template <typename Use>
std::string with_variable(size_t length, Use use) {
  ConfR* conf = new_table();
  const std::string value(length, 'v');
  const int result = conf_set_r("NAME", value.c_str(), conf);
  std::string used = result == 0 ? use(conf) : "not set";
  conf_free_r(conf);
  return used;
}

std::string compared() {
  char name[] = "NAME";
  const ConfEntry entry = {name, name};
  return number(cmp_conf(&entry, &entry));
}

template <typename Connect>
std::string connected(Connect connect) {
  std::array<char, 256> error{};
  MYSQL* connection = connect(error.data(), error.size());
  if (connection == nullptr) return error.data();
  mysql_close(connection);
  return std::string("a handle ") + error.data();
}

/// What a routine gives that is handed a connection.
template <typename Query>
std::string queried(Query query) {
  MYSQL* connection = db_connect();
  if (connection == nullptr) return "no connection";
  std::string value = text(query(connection));
  mysql_close(connection);
  return value;
}

template <typename Write>
std::string logged(Write write, ...) {
  va_list args;
  va_start(args, write);
  write(args);
  va_end(args);
  return done();
}

/// Through the socket of the stage; closelog() takes the descriptor back.
template <typename Write>
std::string sent(Write write) {
  write();
  closelog();
  return done();
}

}  // namespace

Routines settings_routines() {
  const std::string much(kLarge, 'a');
  return {
      {"autoprepend", [] { return number(autoprepend()); }, kNone, kSister},
      {"oxaConfGet", [] { return text(oxaConfGet("HTTPD_VHOSTS_D")); }, kNone, kSister},
      {"oxaConfGetByIndex", [] { return text(oxaConfGetByIndex(OXA_CONF_HTTPD_VHOSTS_D)); }, kNone,
       kSister},
      {"oxaConfGetDefault", [] { return text(oxaConfGetDefault("HTTPD_VHOSTS_D")); }, kNone,
       kSister},
      {"oxaConfGetDefaultByIndex",
       [] { return text(oxaConfGetDefaultByIndex(OXA_CONF_HTTPD_VHOSTS_D)); }},
      {"conf_read_file_r", read_table},
      {"conf_set_r",
       [] { return with_variable(kLarge, [](ConfR*) { return std::string("set"); }); }},
      without_calls(
          "conf_init_r",
          [] { return with_variable(1, [](ConfR* conf) { return number(conf_init_r(conf)); }); }),
      without_calls("conf_get_r",
                    [] {
                      return with_variable(
                          1, [](ConfR* conf) { return text(conf_get_r("NAME", conf)); });
                    }),
      without_calls("conf_finalize_r",
                    [] {
                      return with_variable(1, [](ConfR* conf) {
                        conf_finalize_r(conf);
                        return number(conf->sorted);
                      });
                    }),
      without_calls("conf_free_r",
                    [] {
                      conf_free_r(new_table());
                      return done();
                    }),
      {"cmp_conf", compared, kNone, kSister, {}, false},
      {"realloc_safe",
       [] {
         void* memory = realloc_safe(nullptr, kLarge);
         free(memory);
         return text(memory != nullptr ? "memory" : nullptr);
       }},
      {"asprintf_safe",
       [much] {
         return number(static_cast<int>(taken(asprintf_safe("%s", much.c_str())).size()));
       }},
      {"get_ini_conf_var", [] { return taken(get_ini_conf_var(kIni, "frask", "username")); }},
      {"get_ini_conf_var_bool",
       [] { return number(get_ini_conf_var_bool(kIni, "frask", "username", 1)); }, kNone, kSister},
      without_calls("strip_line",
                    [] {
                      char line[] = " text ; comment";
                      return number(static_cast<int>(strip_line(line)));
                    }),
      without_calls("idn_toascii", [] { return taken(idn_toascii("b\303\274cher.example")); }),
      without_calls("idn_toascii_safe",
                    [] { return taken(idn_toascii_safe("b\303\274cher.example")); }),
      without_calls("idn_toutf8", [] { return taken(idn_toutf8("xn--bcher-kva.example")); }),
      without_calls("idn_url_toascii",
                    [] { return text(idn_url_toascii("http://b\303\274cher.example/page")); }),
      {"idn_email_toascii",
       [much] {
         const std::string address = much + "@b\303\274cher.example";
         return number(static_cast<int>(taken(idn_email_toascii(address.c_str())).size()));
       },
       kNone, kSister},
      {"idn_email_toascii_safe",
       [much] {
         const std::string address = much + "@b\303\274cher.example";
         return number(static_cast<int>(taken(idn_email_toascii_safe(address.c_str())).size()));
       },
       kNone, kSister},
      without_calls("idn_strerror", [] { return text(idn_strerror(1)); }),
      without_calls("oxa_set_terminate",
                    [] {
                      oxa_set_terminate();
                      return done();
                    }),
  };
}

Routines database_routines() {
  constexpr const char* kQuery = "select param, val from misc";
  return {
      {"frask_db_connect_raw_ex", [] { return connected(frask_db_connect_raw_ex); }, kNone,
       kSister},
      {"frask_db_connect_raw", [] { return connected(frask_db_connect_raw); }, kNone, kSister},
      {"frask_db_connect_ex", [] { return connected(frask_db_connect_ex); }, kNone, kSister},
      {"frask_db_connect", [] { return connected(frask_db_connect); }, kNone, kSister},
      {"db_connect_nothrow", [] { return connected(db_connect_nothrow); }, kNone, kSister},
      {"db_connect", [] { return queried([](MYSQL*) { return "connected"; }); }, kNone, kSister},
      {"get_param",
       [] { return queried([](MYSQL* handle) { return get_param("size_count_type", handle); }); }},
      {"get_param_query",
       [] { return queried([](MYSQL* handle) { return get_param_query(kQuery, handle); }); }, kNone,
       kSister},
      {"get_param_from_bigquery",
       [] {
         return queried([](MYSQL* handle) { return get_param_from_bigquery(kQuery, handle, 1); });
       },
       kNone, kSister},
      {"get_mail_server_param", [] { return text(get_mail_server_param("name", nullptr)); }},
  };
}

Routines log_routines() {
  return {
      {"messlog2",
       [] {
         messlog2(0, 1, "message");
         return done();
       }},
      {"vmesslog2", [] { return logged([](va_list args) { vmesslog2(0, 1, "message", args); }); },
       kNone, kSister},
      {"ex_messlog", [] { return number(ex_messlog("message", 0, 1)); }, kNone, kSister},
      {"_frask_utility_log",
       [] {
         _frask_utility_log(LOG_ERR, "line");
         return done();
       },
       kNone, kSister},
      {"_frask_utility_logv",
       [] { return logged([](va_list args) { _frask_utility_logv(LOG_ERR, "line", args); }); },
       kNone, kSister},
      {"_frask_utility_syslog",
       [] { return sent([] { _frask_utility_syslog(LOG_ERR, "line"); }); }},
      {"_frask_utility_syslogv",
       [] {
         return sent(
             [] { logged([](va_list args) { _frask_utility_syslogv(LOG_ERR, "line", args); }); });
       },
       kNone, kSister},
      without_calls("frask_log_init",
                    [] {
                      frask_log_init(nullptr, LOG_INFO, LOG_MAIL, FRASK_LOG_TRACE, "faults");
                      return done();
                    }),
      without_calls("frask_log_set_level",
                    [] {
                      frask_log_set_level(LOG_INFO);
                      return done();
                    }),
      without_calls("frask_log_get_opts",
                    [] { return number(static_cast<int>(frask_log_get_opts())); }),
  };
}

}  // namespace faults
