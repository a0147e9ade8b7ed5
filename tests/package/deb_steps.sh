# The Debian packages, from a bare system to a purged one.
# shellcheck disable=SC2154 # run.sh sets them

apt() { quietly in_root apt-get -qq -y --no-install-recommends "$@"; }
# next_deb REVISION: repacks the packages with it and with another default skeleton.
next_deb() {
  for file in "$packages"/*.deb; do
    rm -rf "$cache/deb"
    dpkg-deb -R "$file" "$cache/deb"
    sed -i "s/$version-[0-9]*/$version-$1/" "$cache/deb/DEBIAN/control"
    skeleton=$cache/deb/usr/local/oxa/var/default_skeleton.tgz
    [ ! -f "$skeleton" ] || skeleton_of "$1" >"$skeleton"
    quietly dpkg-deb --root-owner-group -Zgzip -b "$cache/deb" "$root/given/"
  done
}
skeleton_of() { # WORD: that its page holds
  mkdir -p "$cache/skeleton/httpdocs"
  echo "@domain_name@ $1" >"$cache/skeleton/httpdocs/index.html"
  tar -C "$cache/skeleton" -cz httpdocs
}
installed_page() {
  in_root tar -xzOf /usr/local/oxa/var/default_skeleton.tgz httpdocs/index.html
}
debs() { # REVISION PACKAGE...: their files in the root
  wanted=$version-$1
  shift
  for name in "$@"; do (cd "$root" && ls given/"${name}_${wanted}_"*.deb); done | sed 's|^|/|'
}

install_on_a_bare_system() {
  step "DEB: the tool and what it depends on, on a bare system"
  quietly in_root apt-get -qq -y --no-install-recommends satisfy "$(dpkg-deb -f "$packages"/tembrix_*.deb Depends)"
  before=$(listing) groups_before=$(groups)
  quietly in_root dpkg -i $(debs "$revision" tembrix)
  [ -z "$(in_root dpkg -V tembrix)" ] || fail "files differ from those that were packed"
  places_are_provided
  use_tool
  read_documents
}

purge_leaves_the_places() {
  step "DEB: removing and purging"
  quietly in_root dpkg -r tembrix
  [ ! -e "$root/usr/sbin/tembrix" ] && [ ! -L "$root/usr/local/oxa/admin/sbin/tembrix" ] ||
    fail "the tool is still there"
  [ -f "$root$store/12/httpdocs/index.html" ] || fail "the client's skeleton went with the package"
  quietly in_root dpkg -P tembrix
  rm -r "$root$store/12"
  echo "$before" >"$cache/before"
  listing | diff "$cache/before" - | sed -n 's/^[<>]/&/p' | same "what is left" "> drwxr-xr-x root:root var/www 
> drwxr-xr-x root:root var/www/vhosts 
> drwx------ root:root var/www/vhosts/.skel "
  echo "$groups_before" >"$cache/before"
  groups | diff "$cache/before" - | sed -n 's/^[<>]/&/p' | same "the groups that are left" '> oxacln:'
}

find_places_as_they_are() {
  step "DEB: group and store that were there before"
  forget_places
  keep_places
  quietly in_root dpkg -i $(debs "$revision" tembrix)
  places_were_kept
  quietly in_root dpkg -P tembrix
  places_were_kept
  forget_places
}

# deb_list PACKAGE LIST...: the list, and what each Debian package has beside it, is what is installed.
deb_list() {
  name=$1
  shift
  "$@" >"$cache/expected"
  printf "/usr/share/doc/$name/%s\n" changelog.Debian.gz changelog.gz copyright >>"$cache/expected"
  echo "/usr/share/lintian/overrides/$name" >>"$cache/expected"
  in_root dpkg -L "$name" | paths_of "$name"
}
deb_contents_are_whole() {
  libraries=/usr/lib/$(dpkg-architecture -q DEB_HOST_MULTIARCH)
  deb_list tembrix tool_files vendor-completions
  deb_list libfrask9 library_files "$libraries"
  deb_list libfrask-dev development_files "$libraries" libfrask-dev
  links_lead_somewhere
}

build_programs() {
  step "DEB: building programs with pkg-config, with CMake and as plain C11"
  apt install $(debs "$revision" tembrix libfrask9 libfrask-dev) g++ cmake make
  deb_contents_are_whole
  in_root sh -ec '
    mkdir /tmp/pc /tmp/plain && cd /tmp/pc && examples=/usr/share/doc/libfrask-dev/examples
    gcc -std=c11 -pedantic -Wall -Wextra -Werror $examples/site.c -o site $(pkg-config --cflags --libs frask)
    g++ -std=c++17 -pedantic -Wall -Wextra -Werror $examples/site_report.cpp -o site_report \
      $(pkg-config --cflags --libs frask)
    gcc -std=c11 /given/utility.c -o utility_static \
      $(pkg-config --static --cflags --libs frask | sed "s/-lfrask/-l:libfrask.a/")
    gcc -std=c11 -pedantic -Wall -Wextra -Werror -I/usr/include/frask /given/utility.c -o utility -lfrask
    cmake -S $examples -B /tmp/examples >/dev/null && cmake --build /tmp/examples >/dev/null
    cmake -S /given -B /tmp/utility >/dev/null && cmake --build /tmp/utility >/dev/null' ||
    fail "a program does not build"
}

run_programs() {
  for program in pc/utility pc/utility_static utility/utility utility/utility_static; do
    quietly in_root "/tmp/$program"  # whose status is the tool's: 255 where there is none
  done
  for built in pc examples; do
    # On an empty file system for the sites, so that nothing of it stays.
    unshare --mount sh -ec 'mount -t tmpfs tmpfs "$1/var/www"; mount -t tmpfs tmpfs "$1/mnt"
      exec chroot "$1" sh /given/run_examples.sh "/tmp/$2"' - "$root" $built || fail "the examples fail"
  done
}

depends_on_the_library() {
  step "DEB: what a package of such a program would depend on"
  rm -rf "$cache/scratch"
  mkdir -p "$cache/scratch/debian"
  dpkg-deb -R "$packages"/libfrask9_*.deb "$cache/scratch/library"
  printf 'Source: site\n\nPackage: site\nArchitecture: any\n' >"$cache/scratch/debian/control"
  (cd "$cache/scratch" && dpkg-shlibdeps -Slibrary -l"$(echo library/usr/lib/*-linux-gnu*)" \
    -O "$root/tmp/pc/site" 2>/dev/null) | tr , '\n' | grep frask |
    same "the dependency that the symbols give" ' libfrask9 (>= 9.0.0)'
}

upgrade() {
  step "DEB: upgrading, with a default skeleton that an operator changed and one that none did"
  use_tool
  next_deb $((revision + 1))
  apt install $(debs $((revision + 1)) tembrix libfrask9 libfrask-dev)
  installed_page | same "the default skeleton after an upgrade" "@domain_name@ $((revision + 1))"
  grep -q doctype -i "$root$store/12/httpdocs/index.html" || fail "the client's skeleton has changed"
  run_programs
  skeleton_of operator >"$root/usr/local/oxa/var/default_skeleton.tgz"
  next_deb $((revision + 2))
  apt -o Dpkg::Options::=--force-confold install $(debs $((revision + 2)) tembrix libfrask9 libfrask-dev)
  [ "$(in_root dpkg-query -W -f '${Version}' tembrix)" = "$version-$((revision + 2))" ] || fail "the upgrade did not happen"
  installed_page | same "the operator's skeleton after an upgrade" '@domain_name@ operator'
  in_root ldconfig -p | grep -q 'libfrask\.so\.9' || fail "the loader does not know the library"
}

remove_all() {
  step "DEB: removing and purging everything"
  apt remove tembrix libfrask9 libfrask-dev
  installed_page | same "the operator's skeleton after a removal" '@domain_name@ operator'
  ! in_root ldconfig -p | grep libfrask || fail "the loader still knows the library"
  apt purge tembrix
  in_root find / -xdev -path /tmp -prune -o -path /given -prune -o \
    \( -name '*tembrix*' -o -name '*frask*' -o -name '*oxa*' -o -name '.skel' \) -print |
    grep -v '^/var/cache/apt/archives' | same "what is left of the packages" "$store"
  [ -f "$root$store/12/httpdocs/index.html" ] || fail "the client's skeleton went with the packages"
  in_root getent group oxacln >/dev/null || fail "the group went with the packages"
}

deb_steps() {
  install_on_a_bare_system
  purge_leaves_the_places
  find_places_as_they_are
  build_programs
  run_programs
  depends_on_the_library
  upgrade
  remove_all
}
