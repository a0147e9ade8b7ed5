// Not installed: white space as the readers of this room see it.
#ifndef FRASK_CONF_WHITE_SPACE_PRIVATE_H
#define FRASK_CONF_WHITE_SPACE_PRIVATE_H

#include <ctype.h>

namespace frask::conf {

/// isspace(3) for every char, the negative ones among them.
inline bool is_space(char c) noexcept {
  return isspace(static_cast<unsigned char>(c)) != 0;
}

/// The first other character of a text, its end at the latest.
inline char* skip_space(char* text) noexcept {
  while (is_space(*text)) ++text;
  return text;
}

}  // namespace frask::conf

#endif
