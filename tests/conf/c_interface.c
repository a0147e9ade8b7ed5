/* The room's headers are C as well: this file has only to compile. */
#include "conf/database.h"
#include "conf/inifile.h"
#include "conf/oxaconf.h"

_Static_assert(OXA_CONF_MIN == 0 && OXA_CONF_HTTPD_VHOSTS_D == 25 && OXA_CONF_MAX == 30,
               "the indices are the callers' own");

typedef struct Interface {
  int (*init)(ConfR* conf);
  int (*set)(const char* name, const char* value, ConfR* conf);
  void (*finalize)(ConfR* conf);
  const char* (*get)(const char* name, ConfR* conf);
  int (*read)(const char* path, ConfR* conf);
  void (*release)(ConfR* conf);
  int (*compare)(const void* a, const void* b);
  int (*load)(void);
  const char* (*by_name[2])(const char* name);
  const char* (*by_index[2])(int index);
  void* (*allocate)(void* pointer, size_t size);
  size_t (*strip)(char* line);
  char* (*setting)(const char* path, const char* section, const char* key);
  int (*flag)(const char* path, const char* section, const char* key, int default_value);
  MYSQL* (*connect[5])(char* error, size_t size);
  MYSQL* (*connect_and_report)(void);
  const char* (*field)(const char* query, MYSQL* connection, int column);
  const char* (*value[3])(const char* text, MYSQL* connection);
} Interface;

const Interface kInterface;
const Interface kInterface = {
    conf_init_r,
    conf_set_r,
    conf_finalize_r,
    conf_get_r,
    conf_read_file_r,
    conf_free_r,
    cmp_conf,
    autoprepend,
    {oxaConfGet, oxaConfGetDefault},
    {oxaConfGetByIndex, oxaConfGetDefaultByIndex},
    realloc_safe,
    strip_line,
    get_ini_conf_var,
    get_ini_conf_var_bool,
    {frask_db_connect_raw_ex, frask_db_connect_raw, frask_db_connect_ex, frask_db_connect,
     db_connect_nothrow},
    db_connect,
    get_param_from_bigquery,
    {get_param_query, get_param, get_mail_server_param},
};
