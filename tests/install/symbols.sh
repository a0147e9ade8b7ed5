#!/bin/sh
# Lists what a shared library exports, as exported-symbols.txt has it: demangled, once each, with the
# size of every object, on which programs that were built earlier rely: of a table that they copied,
# of a vtable that they derive from.
#   symbols.sh LIBRARY
set -eu
nm -D -S --defined-only "$1" | c++filt | awk '
  function hex(digits,  value, i) {
    for (i = 1; i <= length(digits); ++i)
      value = value * 16 + index("0123456789abcdef", substr(digits, i, 1)) - 1
    return value
  }
  {
    name = $0
    sub(/^[0-9a-f]+ [0-9a-f]+ . /, "", name)
    print name ($3 ~ /[BDGRSVu]/ ? " [" hex($2) " bytes]" : "")
  }' | LC_ALL=C sort -u
