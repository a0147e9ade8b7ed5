# Prints the clients that have a skeleton of their own, as far as the store can be read.
_tembrix_clients() {
  local vhosts
  vhosts=$(sed -n 's/^[[:space:]]*HTTPD_VHOSTS_D[[:space:]]\{1,\}\([^#[:space:]]\{1,\}\).*/\1/p' \
    /etc/oxa/oxa.conf 2>/dev/null | tail -n 1)
  command ls "${vhosts:-/var/www/vhosts}/.skel" 2>/dev/null
}
