#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <utility>

#include "conf/log_priority.private.h"
#include "conf/oxaconf.h"
#include "log/c_string.private.h"
#include "log/utility_log.h"

using frask::CString;
using frask::conf::kConfWarning;

namespace {

constexpr size_t kStep = 20;

/// A capacity above the count, at least twice the present one; 0 where that has no size_t.
size_t grown_capacity(const ConfR& conf) {
  size_t wanted = 0;
  if (__builtin_mul_overflow(conf.capacity, 2, &wanted)) return 0;
  if (wanted <= conf.count && __builtin_add_overflow(conf.count, kStep, &wanted)) return 0;
  return wanted;
}

bool grow(ConfR* conf) {
  const size_t wanted = grown_capacity(*conf);
  if (wanted == 0) return false;
  void* grown = reallocarray(conf->entries, wanted, sizeof(ConfEntry));
  if (grown == nullptr) return false;
  conf->entries = static_cast<ConfEntry*>(grown);
  std::fill(conf->entries + conf->capacity, conf->entries + wanted, ConfEntry{});
  conf->capacity = wanted;
  return true;
}

int make_first_slots(ConfR* conf) {
  conf->entries = static_cast<ConfEntry*>(calloc(kStep, sizeof(ConfEntry)));
  conf->count = 0;
  conf->sorted = 1;
  conf->capacity = conf->entries != nullptr ? kStep : 0;
  if (conf->entries != nullptr) return 0;
  errno = ENOMEM;
  return -1;
}

ConfEntry* find_in_any_order(const char* name, const ConfR& conf) {
  ConfEntry* end = conf.entries + conf.count;
  ConfEntry* found = std::find_if(
      conf.entries, end, [name](const ConfEntry& entry) { return strcmp(entry.name, name) == 0; });
  return found != end ? found : nullptr;
}

ConfEntry* find_by_halving(const char* name, const ConfR& conf) {
  ConfEntry* end = conf.entries + conf.count;
  ConfEntry* found = std::lower_bound(
      conf.entries, end, name,
      [](const ConfEntry& entry, const char* wanted) { return strcmp(entry.name, wanted) < 0; });
  return found != end && strcmp(found->name, name) == 0 ? found : nullptr;
}

}  // namespace

int conf_init_r(ConfR* conf) {
  if (conf->entries == nullptr) return make_first_slots(conf);
  if (conf->count < conf->capacity || grow(conf)) return 0;
  frask_log(kConfWarning, "Unable to read configuration: %s", strerror(ENOMEM));
  errno = ENOMEM;
  return -1;
}

int conf_set_r(const char* name, const char* value, ConfR* conf) {
  if (conf_init_r(conf) != 0) return -1;
  CString own_name(strdup(name));
  CString own_value(strdup(value));
  if (!own_name || !own_value) {
    frask_log(kConfWarning, "Unable to form configuration: %s", strerror(ENOMEM));
    errno = ENOMEM;
    return -1;
  }
  ConfEntry* entry = find_in_any_order(name, *conf);
  if (entry == nullptr) {
    entry = &conf->entries[conf->count++];
    entry->name = own_name.release();
    conf->sorted = 0;
  }
  free(std::exchange(entry->value, own_value.release()));
  return 0;
}

void conf_finalize_r(ConfR* conf) {
  if (conf->sorted != 0) return;
  if (conf->count > 0) qsort(conf->entries, conf->count, sizeof(ConfEntry), cmp_conf);
  conf->sorted = 1;
}

const char* conf_get_r(const char* name, ConfR* conf) {
  const ConfEntry* entry =
      conf->sorted != 0 ? find_by_halving(name, *conf) : find_in_any_order(name, *conf);
  return entry != nullptr ? entry->value : nullptr;
}

void conf_free_r(ConfR* conf) {
  if (conf == nullptr) return;
  for (size_t slot = 0; slot < conf->capacity; ++slot) {
    free(conf->entries[slot].name);
    free(conf->entries[slot].value);
  }
  free(conf->entries);
  free(conf);
}

int cmp_conf(const void* a, const void* b) {
  return strcmp(static_cast<const ConfEntry*>(a)->name, static_cast<const ConfEntry*>(b)->name);
}
