#!/bin/sh
# One check of an installation, made with what a program outside this tree has: the prefix alone.
#   installed.sh CHECK PREFIX   with CC, CXX and CMAKE in the environment
set -eu
here=$(cd "$(dirname "$0")" && pwd)
prefix=$2
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

fail() {
  echo "installed: $1" >&2
  exit 1
}

# headers [LANGUAGE]: the listed ones, or those of one language.
headers() { sed -n "s/^\([^# ][^ ]*\) ${1:-C.*}\$/\1/p" "$here/headers.txt"; }
includes() { headers "$@" | sed 's/.*/#include <&>/'; }
strict="-pedantic -Wall -Wextra -Werror"

public_headers() {
  headers | sort >expected
  (cd "$prefix/include/frask" && find . -type f | sed 's|^\./||' | sort) >installed
  diff -u expected installed || fail "the installed headers are not those of headers.txt"
}

headers_alone() {
  flags=$(pkg-config --cflags frask)
  for header in $(headers C); do
    printf '#include <%s>\nint unused;\n' "$header" | $CC -std=c11 $strict $flags -fsyntax-only -x c - || fail "$header as C11"
  done
  for header in $(headers); do
    printf '#include <%s>\nint unused;\n' "$header" | $CXX -std=c++17 $strict $flags -fsyntax-only -x c++ - ||
      fail "$header as C++17"
  done
}

# needed FILE: the libraries that a program or library asks the loader for.
needed() { readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]$/\1/p'; }
needs() { needed "$1" | grep -q "^$2"; }

c_program() {
  cp "$here/use_c.c" .
  includes C >c_headers.h
  $CC -std=c11 $strict -I. use_c.c -o use_c "$@"
}

c_shared() {
  c_program $(pkg-config --cflags --libs frask)
  needs use_c libfrask.so.9 || fail "the program was not linked with the shared library"
  LD_LIBRARY_PATH=$prefix/lib ./use_c
}

c_static() {
  # The shared library lies beside the static one, and -l would take it.
  c_program $(pkg-config --static --cflags --libs frask | sed 's/-lfrask/-l:libfrask.a/')
  ! needs use_c libfrask || fail "the program was linked with the shared library"
  ./use_c
}

cxx_shared() {
  cp "$here/consumer/use_cxx.cpp" .
  includes >all_headers.h
  $CXX -std=c++17 $strict -I. use_cxx.cpp -o use_cxx $(pkg-config --cflags --libs frask)
  LD_LIBRARY_PATH=$prefix/lib ./use_cxx
}

cmake_project() {
  cp -r "$here/consumer" project
  includes >project/all_headers.h
  "$CMAKE" -S project -B build -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$CXX" >log 2>&1 &&
    "$CMAKE" --build build >>log 2>&1 || { cat log; fail "the project does not build"; }
  needs build/use_shared libfrask.so.9 || fail "use_shared was not linked with the shared library"
  ! needs build/use_static libfrask || fail "use_static was linked with the shared library"
  build/use_shared
  build/use_static
}

cmake_versions() {
  for wanted in 9 9.0 9.0.0; do
    asks_for "$wanted" || fail "version $wanted is refused"
  done
  for wanted in 8 9.1 10; do
    ! asks_for "$wanted" || fail "version $wanted is offered"
  done
}

asks_for() { # VERSION
  rm -rf asking && mkdir asking
  printf '%s\n' 'cmake_minimum_required(VERSION 3.23)' 'project(asking LANGUAGES CXX)' \
    "find_package(frask $1 REQUIRED CONFIG)" >asking/CMakeLists.txt
  "$CMAKE" -S asking -B asking/build -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$CXX" >log 2>&1
}

tool_needs() {
  tool=$prefix/sbin/tembrix
  [ "$(stat -c %a "$tool")" = 755 ] || fail "the tool is not mode 755"
  needed "$tool" >libraries
  grep -q '^libc\.so' libraries || fail "this is no dynamic program: $(cat libraries)"
  ! grep -E 'libxml2|libfrask' libraries || fail "the tool needs what it must not"
  ! readelf -d "$tool" | grep -E 'R(UN)?PATH' || fail "the tool looks for libraries in a fixed place"
}

tool_data() {
  for file in oxa/var/default_skeleton.tgz share/bash-completion/completions/tembrix \
    share/zsh/site-functions/_tembrix; do
    [ "$(stat -c %a "$prefix/$file")" = 644 ] || fail "$file is missing, or not mode 644"
  done
  tar -tzf "$prefix/oxa/var/default_skeleton.tgz" | grep -qx httpdocs/index.html || fail "the skeleton has no page"
}

# Below the prefix "/usr/local" this is the product root that the panel's programs have compiled in.
tool_link() {
  [ "$(readlink -f "$prefix/oxa/admin/sbin/tembrix")" = "$(readlink -f "$prefix/sbin/tembrix")" ] ||
    fail "the panel does not find the tool"
}

versioned_library() {
  lib=$prefix/lib
  readelf -d "$lib/libfrask.so" | grep -q 'SONAME.*\[libfrask\.so\.9\]$' || fail "the soname is another"
  [ "$(readlink "$lib/libfrask.so")" = libfrask.so.9 ] || fail "libfrask.so leads elsewhere"
  [ -f "$lib/libfrask.so.9" ] && [ -f "$lib/libfrask.a" ] || fail "a library is missing"
  ! readelf -d "$lib/libfrask.so" | grep -E 'R(UN)?PATH' || fail "the library has a fixed path"
}

# What cmake/options.cmake asks of the compiler and the linker, seen in what they made.
hardened() {
  for file in "$prefix/sbin/tembrix" "$prefix/lib/libfrask.so"; do
    readelf -hlW "$file" >layout
    readelf -dW "$file" >dynamic
    readelf -sW "$file" >symbols
    grep -q 'Type: *DYN' layout || fail "$file is not position independent"
    grep -q GNU_RELRO layout || fail "$file has no part that becomes read-only"
    grep -Eq 'FLAGS_1.* NOW' dynamic || fail "$file binds its symbols late"
    grep -E 'GNU_STACK.* RW ' layout | grep -qv RWE || fail "$file has a stack that can be run"
    ! grep -q TEXTREL dynamic || fail "$file has text that is written to"
    grep -q __stack_chk_fail symbols || fail "$file has no guard on its stack"
    grep -q '_chk@' symbols || fail "$file does not check its buffers"
  done
  readelf -dW "$prefix/sbin/tembrix" | grep -Eq 'FLAGS_1.* PIE' ||
    fail "the tool is not a position independent program"
  if [ "$(uname -m)" = x86_64 ]; then hardened_x86_64; fi
}

# A program as a whole bears the mark of guarded branches only where the C library's start-up objects
# bear it, and Debian 12's do not: the library's own objects are looked at.
hardened_x86_64() {
  readelf -nW "$prefix/lib/libfrask.a" >notes
  objects=$(grep -c '^File:' notes)
  [ "$objects" -gt 50 ] || fail "there are $objects objects in the library"
  [ "$(grep -c 'x86 feature: IBT, SHSTK' notes)" -eq "$objects" ] || fail "an object has unguarded branches"
  # A frame of more than a page is touched page by page.
  objdump -d --no-show-raw-insn "$prefix/sbin/tembrix" | grep -Eq 'or[bwlq]? +\$0x0,.*\(%[re]sp' ||
    fail "the tool has stack frames that may jump over a guard page"
}

exported_symbols() {
  "$here/symbols.sh" "$prefix/lib/libfrask.so" >exported
  grep -v '^#' "$here/exported-symbols.txt" | LC_ALL=C sort -u | diff -u - exported ||
    fail "what is exported is not exported-symbols.txt"
}

# run_built DIRECTORY: runs the examples that were built into it.
run_built() {
  LD_LIBRARY_PATH=$prefix/lib "$here/../../scripts/private-mounts" "$here/run_examples.sh" "$work/$1"
}

examples_pkg_config() {
  flags=$(pkg-config --cflags --libs frask)
  mkdir built
  $CC -std=c11 $strict "$here/../../examples/site.c" -o built/site $flags
  $CXX -std=c++17 $strict "$here/../../examples/site_report.cpp" -o built/site_report $flags
  run_built built
}

examples_cmake() {
  "$CMAKE" -S "$here/../../examples" -B built -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_COMPILER="$CC" -DCMAKE_CXX_COMPILER="$CXX" >log 2>&1 &&
    "$CMAKE" --build built >>log 2>&1 || { cat log; fail "the examples do not build"; }
  run_built built
}

manual_pages() {
  (cd "$here/../../man" && for page in *; do echo "man${page##*.}/$page"; done) | sort >expected
  (cd "$prefix/share/man" && find . -type f | sed 's|^\./||' | sort) >installed
  diff -u expected installed || fail "the installed pages are not those of man/"
  for page in "$prefix"/share/man/man*/*; do
    mandoc -Tlint -W warning "$page" || fail "$page is not clean"
    groff -mandoc -Tutf8 -ww -z "$page" 2>warnings || true
    LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>>warnings >page || true
    [ -s page ] || fail "man does not show $page"
    [ ! -s warnings ] || { cat warnings >&2; fail "warnings of $page"; }
  done
}

# The C programs in the pages' examples: each literal block with a main().
manual_programs() {
  for page in "$prefix"/share/man/man*/*; do
    awk -v name="$(basename "$page")" '
      /^\.Bd -literal/ { block = ""; inside = 1; next }
      /^\.Ed/ { if (block ~ /int main\(/) printf "%s", block >(name "." ++count ".c"); inside = 0 }
      inside { block = block $0 "\n" }' "$page"
  done
  for program in *.c; do
    $CC -std=c11 $strict "$program" -o "${program%.c}" $(pkg-config --cflags --libs frask) ||
      fail "$program does not build"
  done
  [ "$(LD_LIBRARY_PATH=$prefix/lib "$here/../../scripts/private-mounts" ./frask.3.1)" = /var/www/vhosts ] || fail "frask(3) misleads"
  status=0
  LD_LIBRARY_PATH=$prefix/lib ./tembrix.8.1 || status=$?
  [ $status -eq 2 ] || fail "the program of tembrix(8) ends with $status without arguments"
}

$1
