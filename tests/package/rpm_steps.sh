# The RPM packages, in the Debian system that the Debian packages leave behind with what programs are
# built with. What this cannot show: that a system which rpm keeps has packages of the names that are
# required. So rpm is not asked (--nodeps), and what is required is looked up here: libraries and their
# versions in the system, commands and pkg-config modules by their names, and the rest is a short list.
# shellcheck disable=SC2154 # run.sh sets them

# Debian's rpm wants to be told that it is meant; its database lies in the root.
rpm_root() { rpm --root "$root" --dbpath /var/lib/rpm --force-debian "$@" 2>"$cache/rpm.err"; }
rpm_do() { rpm_root --nodeps "$@" || { cat "$cache/rpm.err" >&2; fail "rpm $* failed"; }; }
rpms() { # PACKAGE...
  for name in "$@"; do ls "$packages/$name-$version-$revision".*.rpm; done
}

# provided REQUIREMENT: whether the system, or another of the packages, has it.
provided() {
  case $1 in
    rpmlib\(* | 'rtld(GNU_HASH)') return 0 ;;  # what rpm and the loader can do
    *.so.*\(*\(64bit\))
      file=$(in_root ldconfig -p | awk -v name="${1%%(*}" '$1 == name { print $NF; exit }')
      wanted=${1#*\(}
      wanted=${wanted%%)*}
      [ -n "$file" ] && { [ -z "$wanted" ] || readelf -V "$root$file" | grep -q "Name: $wanted\$\|Name: $wanted "; } ;;
    /*) [ -x "$root$1" ] ;;
    file | tar | gzip | unzip) in_root sh -c "command -v $1" >/dev/null ;;
    pkgconfig\(*\)) module=${1#*\(}; in_root pkg-config --exists "${module%\)}" ;;
    pkgconfig) provided /usr/bin/pkg-config ;;
    boost-devel) [ -f "$root/usr/include/boost/shared_ptr.hpp" ] ;;
    *) rpm -qp --provides "$packages"/*.rpm | grep -qxF "$1" ;;
  esac
}

requirements_are_met() {
  step "RPM: what the packages require"
  for package in "$packages"/*.rpm; do
    rpm -qp --requires "$package" | sort -u >"$cache/requires"
    while read -r requirement; do
      provided "$requirement" || fail "$(basename "$package") requires $requirement, which nothing has"
    done <"$cache/requires"
  done
  for needed in file tar gzip unzip 'libmariadb.so.3()(64bit)' /usr/sbin/groupadd; do
    rpm -qp --requires "$(rpms tembrix)" | grep -qxF "$needed" || fail "tembrix does not require $needed"
  done
  rpm -qp --requires "$(rpms libfrask-devel)" | grep -q '^libfrask = 9' ||
    fail "the headers do not require the library"
  ! provided no-such-thing && ! provided 'libc.so.6(GLIBC_9.9)(64bit)' || fail "nothing is too much"
}

contents_are_as_expected() {
  rpm -qp --qf '[%{FILENAMES} %{FILEFLAGS:fflags}\n]' "$(rpms tembrix)" |
    grep 'default_skeleton' | same "the flags of the default skeleton" '/usr/local/oxa/var/default_skeleton.tgz cn'
  rpm -qp --scripts "$(rpms libfrask)" | grep -c '^/sbin/ldconfig' | same "calls of ldconfig" 2
  rpm -qlp "$packages"/*.rpm | grep -xE '/usr(/local|/sbin|/share(/man(/man[358])?)?|/lib64|/include)?' |
    same "directories of the system in the packages" ''
}

# rpm_list PACKAGE LIST...: the list, and the licence, is what is installed.
rpm_list() {
  name=$1
  shift
  "$@" >"$cache/expected"
  echo "/usr/share/licenses/$name/copyright" >>"$cache/expected"
  rpm_root -ql "$name" | paths_of "$name"
}
rpm_contents_are_whole() {
  rpm_list tembrix tool_files site-functions
  rpm_list libfrask library_files /usr/lib64
  rpm_list libfrask-devel development_files /usr/lib64 libfrask-devel
  links_lead_somewhere
}

install_rpms() {
  step "RPM: installing, beside a group and a store that were there before and without"
  forget_places
  # Directories of a system that rpm keeps, which this one lacks.
  in_root mkdir -p /usr/lib64/cmake /usr/lib64/pkgconfig /usr/share/licenses /usr/share/zsh/site-functions
  before=$(listing) groups_before=$(groups)
  keep_places
  rpm_do -i "$(rpms tembrix)"
  places_were_kept
  rpm_do -e tembrix
  places_were_kept
  forget_places
  rpm_do -i $(rpms tembrix libfrask libfrask-devel)
  rpm_root -V --nodeps tembrix libfrask libfrask-devel | same "files that differ from those packed" ''
  rpm_contents_are_whole
  places_are_provided
  use_tool
  read_documents
}

# Debian's tools and loader do not look into /usr/lib64, and are told.
build_with_rpms() {
  in_root sh -ec '
    export PKG_CONFIG_PATH=/usr/lib64/pkgconfig LD_LIBRARY_PATH=/usr/lib64
    gcc -std=c11 /given/utility.c -o /tmp/utility_rpm $(pkg-config --cflags --libs frask)
    /tmp/utility_rpm
    cmake -S /usr/share/doc/libfrask-devel/examples -B /tmp/examples_rpm -Dfrask_DIR=/usr/lib64/cmake/frask >/dev/null
    cmake --build /tmp/examples_rpm >/dev/null' || fail "a program does not build with the RPM packages"
}

upgrade_rpms() {
  step "RPM: upgrading and removing"
  skeleton_of operator >"$root/usr/local/oxa/var/default_skeleton.tgz"
  rpm_do -U "$next"/*.rpm
  rpm_root -qa | sed 's/\.[^.]*$//; s/.*-//' | sort -u | same "revisions after the upgrade" $((revision + 1))
  installed_page | same "the operator's skeleton after an upgrade" '@domain_name@ operator'
  [ -f "$root$store/12/httpdocs/index.html" ] || fail "the client's skeleton went with the upgrade"
  rpm_do -e tembrix libfrask libfrask-devel
  rm "$root/usr/local/oxa/var/default_skeleton.tgz.rpmsave" || fail "the operator's skeleton is lost"
  rmdir -p "$root/usr/local/oxa/var" 2>/dev/null || true
  rm -r "$root$store/12"
  echo "$before" >"$cache/before"
  listing | diff "$cache/before" - | sed -n 's/^[<>]/&/p' | same "what is left" "> drwxr-xr-x root:root var/www 
> drwxr-xr-x root:root var/www/vhosts 
> drwx------ root:root var/www/vhosts/.skel "
  echo "$groups_before" >"$cache/before"
  groups | diff "$cache/before" - | sed -n 's/^[<>]/&/p' | same "the groups that are left" '> oxacln:'
}

rpm_steps() {
  requirements_are_met
  contents_are_as_expected
  install_rpms
  build_with_rpms
  upgrade_rpms
}
