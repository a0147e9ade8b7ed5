#include "faults/routines.h"

#include <stdlib.h>

#include <iterator>

#include "log/c_string.private.h"

namespace faults {

std::string number(int value) {
  return std::to_string(value);
}

std::string text(const char* value) {
  return value != nullptr ? value : "NULL";
}

std::string taken(char* value) {
  const frask::CString owner(value);
  return text(value);
}

std::string done() {
  return "";
}

char* const* words(std::initializer_list<const char*> given) {
  static char* argv[8];
  size_t count = 0;
  for (const char* word : given) argv[count++] = const_cast<char*>(word);
  argv[count] = nullptr;
  return argv;
}

const Routines& routines() {
  static const Routines all = [] {
    Routines joined;
    for (Routines part :
         {process_routines(), object_routines(), settings_routines(), database_routines(),
          log_routines(), tree_routines(), tool_routines(), site_routines()})
      joined.insert(joined.end(), std::make_move_iterator(part.begin()),
                    std::make_move_iterator(part.end()));
    return joined;
  }();
  return all;
}

}  // namespace faults
