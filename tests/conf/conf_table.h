// A configuration table for one test.
#ifndef TESTS_CONF_CONF_TABLE_H
#define TESTS_CONF_CONF_TABLE_H

#include <stdlib.h>

#include <map>
#include <memory>
#include <string>

#include "conf/oxaconf.h"

struct FreeConf {
  void operator()(ConfR* conf) const { conf_free_r(conf); }
};
using ConfTable = std::unique_ptr<ConfR, FreeConf>;

/// A table as callers make it: zeroed memory and nothing else.
inline ConfTable new_table() {
  return ConfTable(static_cast<ConfR*>(calloc(1, sizeof(ConfR))));
}

/// Everything in the table, by name.
inline std::map<std::string, std::string> content_of(const ConfTable& conf) {
  std::map<std::string, std::string> content;
  for (size_t i = 0; i < conf->count; ++i) content[conf->entries[i].name] = conf->entries[i].value;
  return content;
}

#endif
