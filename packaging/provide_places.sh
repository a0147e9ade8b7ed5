# What the panel's programs expect beside the tool. What is there already stays as it is, and all of
# it stays when the package goes: sites belong to the group, and clients' skeletons lie in the store.
getent group oxacln >/dev/null || groupadd --system oxacln
[ -d /var/www/vhosts/.skel ] || (umask 022 && mkdir -p /var/www/vhosts/.skel)
