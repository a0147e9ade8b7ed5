# What the panel's programs expect beside the tool. What is there already stays as it is, and all of
# it stays when the package goes: sites belong to the group, and clients' skeletons lie in the store.
# Nobody but root enters the store: what unzip has just written there may be writable for everybody.
getent group oxacln >/dev/null || groupadd --system oxacln
[ -d /var/www/vhosts/.skel ] ||
  (umask 022 && mkdir -p /var/www/vhosts && mkdir -m 0700 /var/www/vhosts/.skel)
