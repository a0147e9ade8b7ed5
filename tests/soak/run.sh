#!/bin/sh
# The soak, of the tool and of the library, in the private mounts with a database server of its own.
# Fails when either finds anything wrong.
#   run.sh SOAK TEMBRIX SKELETON MARIADB_TEMPLATE OPERATIONS CLIENTS [SEED]
set -eu

if [ "${TEMBRIX_SOAK:-}" != inside ]; then
  TEMBRIX_SOAK=inside exec "$(dirname "$0")/../../scripts/private-mounts" "$0" "$@"
fi
unset TEMBRIX_SOAK
soak=$1 tembrix=$2 skeleton=$3 template=$4 operations=$5 clients=$6 seed=${7:-1}
server="$(dirname "$0")/../../scripts/private-mariadb"

# What an operation changes in these is in a layer over each. Some have one from scripts/private-mounts.
for place in /etc /usr/local /srv; do
  layer=/mnt/layer$(echo "$place" | tr / -)
  if [ ! -d "$place" ] || [ -d "$layer" ]; then continue; fi
  mkdir -p "$layer/upper" "$layer/work"
  mount -t overlay -o "lowerdir=$place,upperdir=$layer/upper,workdir=$layer/work" overlay "$place"
  if [ ! -x "$soak" ]; then  # a layer hides what is mounted below it
    umount "$place"
  elif [ "$place" != /srv ]; then
    mount -t tmpfs -o mode=0755 tmpfs "$place/oxa"
  fi
done

mkdir -p /mnt/site /mnt/library /var/www/vhosts/.skel /var/www/vhosts/example.com/httpdocs \
  /usr/local/oxa/var
cp "$skeleton" /usr/local/oxa/var/default_skeleton.tgz
echo '<html>a site</html>' >/var/www/vhosts/example.com/httpdocs/index.html
echo 'MYSQL_SOCKET /var/lib/mysql/mysql.sock' >/etc/oxa/oxa.conf
echo 'HTTPD_VHOSTS_D /var/www/vhosts' >>/etc/oxa/oxa.conf
echo 'a password' >/etc/oxa/.oxa.shadow
chmod 0600 /etc/oxa/.oxa.shadow
echo "insert into misc (param, val) values ('size_count_type', 'byte');" >/mnt/seed.sql
{ cat /etc/group; echo oxacln:x:6321:; } >/mnt/group
mount --bind /mnt/group /etc/group
"$server" start /mnt/database --socket /var/lib/mysql/mysql.sock --template "$template" \
  --password-file /etc/oxa/.oxa.shadow --seed /mnt/seed.sql

failed=
echo "soak: the tool"
"$soak" tool "$soak"_launcher "$tembrix" "$operations" "$clients" "$seed" "$(cat /mnt/database/server.pid)" /mnt/site ||
  failed=1
echo "soak: the library"
# Blocks that the allocator keeps for each size would count as allocated.
GLIBC_TUNABLES=glibc.malloc.tcache_count=0 "$soak" library $((operations / 4)) /mnt/library || failed=1
"$server" stop /mnt/database
[ -z "$failed" ]
