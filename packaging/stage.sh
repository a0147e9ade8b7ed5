#!/bin/sh
# Finishes what will be one package as distributions expect it: compressed manual pages, libraries
# without what no program needs, copyright, and for Debian changelog, overrides and the symbols.
#   stage.sh DEB|RPM DIRECTORY PACKAGE VERSION SYMBOLS_LIST SYMBOLS_FILE
set -eu
here=$(cd "$(dirname "$0")" && pwd)
generator=$1 root=$2 package=$3 version=$4 list=$5 symbols=$6

find "$root" -path '*/share/man/man*' -type f ! -name '*.gz' -exec gzip -9n {} +
find "$root" -name '*.a' -type f -exec \
  strip --strip-debug --remove-section=.comment --enable-deterministic-archives {} +
find "$root" -name '*.so.*' -type f -exec \
  strip --strip-unneeded --remove-section=.comment --remove-section=.note {} +
find "$root" -path '*/sbin/*' -type f -exec strip --remove-section=.comment --remove-section=.note {} +

# The pages to which the changelog links, and whoever operates the tool wants. A link that leads out of
# them becomes its text, a picture its caption.
if [ "$package" = tembrix ]; then
  pages=$root/usr/share/doc/tembrix/docs
  install -d -m 0755 "$pages"
  for page in default-skeleton performance security; do
    sed -E 's,!?\[([^]]*)\]\((\.\.|images)/[^)]*\),\1,g' "$here/../docs/$page.md" >"$pages/$page.md"
    chmod 0644 "$pages/$page.md"
  done
fi

if [ "$generator" = RPM ]; then
  install -D -m 0644 "$here/copyright" "$root/usr/share/licenses/$package/copyright"
  exit
fi

doc=$root/usr/share/doc/$package
install -D -m 0644 "$here/copyright" "$doc/copyright"
gzip -9n <"$here/deb/changelog" >"$doc/changelog.Debian.gz"
to_docs=../tembrix/docs
[ "$package" != tembrix ] || to_docs=docs
sed "s,](docs/,]($to_docs/,g" "$here/../CHANGELOG.md" | gzip -9n >"$doc/changelog.gz"
chmod 0644 "$doc"/*.gz
if [ -f "$here/deb/$package.lintian-overrides" ]; then
  install -D -m 0644 "$here/deb/$package.lintian-overrides" "$root/usr/share/lintian/overrides/$package"
fi

# The symbols that a program may ask for, with the version that brought each: the list under version
# control says so, and the library must have these and no other.
library=$(find "$root" -name 'libfrask.so.*' -type f)
[ -n "$library" ] || exit 0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$here/deb/symbols_template.sh" "$package" <"$list" >"$work/template"
mkdir "$work/debian"
printf 'Source: tembrix\n\nPackage: %s\nArchitecture: any\n' "$package" >"$work/debian/control"
(cd "$work" && dpkg-gensymbols -c4 "-p$package" "-v$version" "-e$library" -Itemplate "-O$symbols")
