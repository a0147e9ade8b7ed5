# What the tests of both kinds of package share. Reads "root", the directory of the system under test,
# and in_root, which runs a command in it.

step() { echo "package test: $*"; }
fail() { echo "package test: $*" >&2; exit 1; }
# quietly COMMAND...: its output is shown only when it fails.
quietly() { "$@" >"$cache/log" 2>&1 || { cat "$cache/log" >&2; fail "this failed: $*"; }; }
# same NAME EXPECTED: standard input is what the text says.
same() {
  cat >"$cache/got"
  { [ -z "$2" ] || printf '%s\n' "$2"; } | diff -u - "$cache/got" >&2 || fail "$1"
}

# listing: every path but those that any package manager changes, with mode and owner.
listing() {
  (cd "$root" && find . -xdev \( -path ./proc -o -path ./tmp -o -path ./given -o -path ./var/cache -o \
    -path ./var/log -o -path ./etc/group- -o -path ./etc/gshadow- -o -path ./var/lib/dpkg -o -path ./var/lib/apt -o -path ./var/lib/rpm \) -prune -o \
    -printf '%M %u:%g %P %l\n' | LC_ALL=C sort -k 3)
}
# groups: the names and members of all, without the numbers.
groups() { cut -d : -f 1,4 "$root/etc/group" | sort; }
store=/var/www/vhosts/.skel

answer() { # EXPECTED COMMAND...
  expected=$1
  shift
  got=$(in_root "$@" 2>/dev/null | tail -n 1) || true
  [ "$got" = "$expected" ] || fail "the answer of \"$*\" is \"$got\", not $expected"
}

# The tool does its work, by both of its names.
use_tool() {
  answer 0 tembrix --test-support zip
  answer 0 /usr/local/oxa/admin/sbin/tembrix --test-support tgz
  answer 0 tembrix --install-default --id 12
  grep -q '@domain_name@' "$root$store/12/httpdocs/index.html" || fail "the default page greets nobody"
  in_root tar -xzOf /usr/local/oxa/var/default_skeleton.tgz httpdocs/index.html |
    cmp - "$root$store/12/httpdocs/index.html" || fail "the default skeleton is not what is installed"
  find "$root$store/12" -type d ! -perm 0755 -o -type f ! -perm 0644 -o ! -user root >"$cache/odd"
  [ ! -s "$cache/odd" ] || fail "wrong mode or owner: $(cat "$cache/odd")"
  in_root sh -c 'mkdir -p /tmp/up/httpdocs && echo mine >/tmp/up/httpdocs/a && tar -C /tmp/up -czf /tmp/up.tgz .'
  answer 0 tembrix --install-skel --filename /tmp/up.tgz --id 13
  [ "$(cat "$root$store/13/httpdocs/a")" = mine ] || fail "the client's skeleton is not installed"
  answer 0 tembrix --remove-skel --id 13
  [ ! -e "$root$store/13" ] || fail "the client's skeleton is still there"
}

# paths_of PACKAGE: standard input, the paths that its package manager knows of it, are there, and but
# for directories they are those of the lists below.
paths_of() {
  while read -r path; do
    if [ -d "$root$path" ] && [ ! -L "$root$path" ]; then continue; fi
    [ -e "$root$path" ] || in_root test -e "$path" || fail "$path of $1 is not there"
    echo "$path"
  done | LC_ALL=C sort | same "the files of $1" "$(LC_ALL=C sort "$cache/expected")"
}
pages() { # SECTION...: where the manual pages of the source are installed
  for section in "$@"; do
    (cd "$source/man" && printf "/usr/share/man/man$section/%s.gz\n" *."$section")
  done
}
tool_files() { # DIRECTORY_OF_ZSH
  printf '%s\n' /usr/sbin/tembrix /usr/local/oxa/admin/sbin/tembrix \
    /usr/local/oxa/var/default_skeleton.tgz /usr/share/bash-completion/completions/tembrix \
    "/usr/share/zsh/$1/_tembrix"
  for page in default-skeleton performance security; do
    echo "/usr/share/doc/tembrix/docs/$page.md"
  done
  pages 5 8
}
library_files() { # LIBRARY_DIRECTORY
  printf '%s\n' "$1/libfrask.so.${version%%.*}" "$1/libfrask.so.$version"
}
development_files() { # LIBRARY_DIRECTORY PACKAGE
  printf '%s\n' "$1/libfrask.so" "$1/libfrask.a" "$1/pkgconfig/frask.pc"
  for part in frask-targets frask-targets-release fraskConfig fraskConfigVersion; do
    echo "$1/cmake/frask/$part.cmake"
  done
  (cd "$source/examples" && printf "/usr/share/doc/$2/examples/%s\n" CMakeLists.txt *.c *.cpp)
  # The owners of descriptors and directories are the library's own.
  (cd "$source/src" && find . -name '*.h' ! -name '*.private.h' ! -path ./fs/unique_fd.h \
    ! -path ./fs/dir_stream.h -printf '/usr/include/frask/%P\n')
  pages 3
}

# links_lead_somewhere: what an installed document links to is installed.
links_lead_somewhere() {
  for document in "$root"/usr/share/doc/tembrix/docs/*.md "$root"/usr/share/doc/*frask*/changelog.gz \
    "$root"/usr/share/doc/tembrix/changelog.gz; do
    [ -f "$document" ] || continue  # the packages for rpm have no changelog
    zcat -f "$document" | grep -oE '\]\([^)#]+' | cut -c 3- | grep -vE '^https?:' >"$cache/links" || true
    while read -r link; do
      [ -f "$(dirname "$document")/$link" ] || fail "${document#"$root"} links to $link, which is not there"
    done <"$cache/links"
  done
}

# What else came with the tool: pages that can be read, completions that can be loaded.
read_documents() {
  for page in $(pages 5 8); do
    zcat "$root$page" | grep -q '^\.Dt' || fail "$page is no manual page"
  done
  in_root bash -c '. /usr/share/bash-completion/completions/tembrix && complete -p tembrix' >/dev/null ||
    fail "bash does not complete"
}

# places_are_provided: the group and the store, made on installation.
places_are_provided() {
  in_root getent group oxacln | awk -F : '$3 >= 1000 { exit 1 }' || fail "the group is no system group"
  in_root getent group oxacln >/dev/null || fail "there is no group oxacln"
  in_root stat -c '%A %U:%G' $store | same "the store of skeletons" 'drwx------ root:root'
}

# keep_places / places_were_kept: what was there before an installation is there after it.
keep_places() {
  quietly in_root groupadd -g 4321 oxacln
  in_root sh -c 'mkdir -p /home/large/7 /var/www/vhosts && chgrp oxacln /home/large &&
    chmod 2710 /home/large && echo kept >/home/large/7/file && ln -s /home/large /var/www/vhosts/.skel'
  kept=$(state_of_places)
}
state_of_places() {
  grep '^oxacln:' "$root/etc/group"
  (cd "$root" && ls -lanR --time-style=full-iso var/www home/large)
}
places_were_kept() { state_of_places | same "what was there before has changed" "$kept"; }
forget_places() {
  quietly in_root groupdel oxacln
  rm -rf "$root/var/www" "$root/home/large"
}
