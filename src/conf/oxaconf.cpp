#include "conf/oxaconf.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <array>

#include "log/messlog.h"
#include "log/utility_log.h"

const char* const theOxaConfNames[OXA_CONF_MAX + 2] = {
    "_MIN_POSSIBLE_OXA_CONF_VAR_NAME",
    "FRASK_MAILNAMES_D",
    "RBLSMTPD",
    "CLIENT_PHP_BIN",
    "LIB_CRYPTO_PATH",
    "LIB_SSL_PATH",
    "AWSTATS_DOC_D",
    "AWSTATS_TOOLS_D",
    "AWSTATS_BIN_D",
    "AWSTATS_ETC_D",
    "MAILMAN_VAR_D",
    "MAILMAN_ROOT_D",
    "PGSQL_DATA_D",
    "PGSQL_BIN_D",
    "MYSQL_BIN_D",
    "MYSQL_VAR_D",
    "WEB_STAT",
    "DUMP_D",
    "DUMP_TMP_D",
    "NAMED_RUN_ROOT_D",
    "HTTPD_BIN",
    "HTTPD_SERVICE",
    "HTTPD_LOG_D",
    "HTTPD_INCLUDE_D",
    "HTTPD_CONF_D",
    "HTTPD_VHOSTS_D",
    "MYSQL_SOCKET",
    "SA_MAX_MAIL_SIZE",
    "SNI_SUPPORT",
    "PRODUCT_ROOT_D",
    "_MAX_POSSIBLE_OXA_CONF_VAR_NAME",
    nullptr,
};

const char* const theOxaConfDefauls[OXA_CONF_MAX + 2] = {
    "_MIN_POSSIBLE_OXA_CONF_VAR_VALUE",
    "/var/qmail/mailnames",
    "/usr/sbin/rblsmtpd",
    "/usr/local/oxa/bin/php-cli",
    "/lib/libcrypto.so",
    "/lib/libssl.so",
    "/usr/share/awstats/wwwroot",
    "/usr/share/awstats/tools",
    "/usr/share/awstats/wwwroot/cgi-bin",
    "/etc/awstats",
    "/var/lib/mailman",
    "/usr/lib/mailman",
    "/var/lib/pgsql/data",
    "/usr/bin",
    "/usr/bin",
    "/var/lib/mysql",
    "/usr/bin/webalizer",
    "/var/lib/oxa/dumps",
    "/tmp",
    "/var/named/chroot",
    "/usr/sbin/httpd",
    "httpd",
    "/var/log/httpd",
    "/etc/httpd/conf.d",
    "/etc/httpd/conf",
    "/var/www/vhosts",
    "/var/lib/mysql/mysql.sock",
    "256000",
    "true",
    "/usr/local/oxa",
    "_MAX_POSSIBLE_OXA_CONF_VAR_VALUE",
    nullptr,
};

ConfR* theOxaConfHash = nullptr;

namespace {

constexpr const char* kProductConfiguration = "/etc/oxa/oxa.conf";

/// By index, what was found in the file. Static memory starts cleared.
std::array<const char*, OXA_CONF_MAX + 1> theOxaConfArray;

}  // namespace

int autoprepend() {
  if (theOxaConfHash != nullptr) return 0;
  auto* conf = static_cast<ConfR*>(calloc(1, sizeof(ConfR)));
  if (conf == nullptr) {
    frask_log(LOG_ERR, "Not enough memory to allocate Frask runtime configuration structure");
    errno = ENOMEM;
    return -1;
  }
  if (conf_read_file_r(kProductConfiguration, conf) != 0) {
    conf_free_r(conf);
    return -1;
  }
  theOxaConfHash = conf;
  return 0;
}

const char* oxaConfGet(const char* name) {
  return autoprepend() == 0 ? conf_get_r(name, theOxaConfHash) : nullptr;
}

const char* oxaConfGetByIndex(int index) {
  const char*& cached = theOxaConfArray[static_cast<size_t>(index)];
  if (cached == nullptr) cached = oxaConfGet(theOxaConfNames[index]);
  return cached;
}

const char* oxaConfGetDefaultByIndex(int index) {
  const char* value = oxaConfGetByIndex(index);
  return value != nullptr ? value : theOxaConfDefauls[index];
}

const char* oxaConfGetDefault(const char* name) {
  // Deliberate: the lower sentinel is among the names that are found, the upper one is not. Pinned
  // by OxaConfGetDefault.FindsOnlyTheLowerSentinel.
  for (int index = OXA_CONF_MIN; index < OXA_CONF_MAX; ++index)
    if (strcmp(name, theOxaConfNames[index]) == 0) return oxaConfGetDefaultByIndex(index);
  frask_log(LOG_ERR, "variable '%s' was found neither in %s, nor in compile-time defaults", name,
            kProductConfiguration);
  return nullptr;
}

void* realloc_safe(void* pointer, size_t size) {
  void* memory = realloc(pointer, size);
  if (memory == nullptr && size != 0) messlog2(1, 1, "alloc(%zu)", size);
  return memory;
}
