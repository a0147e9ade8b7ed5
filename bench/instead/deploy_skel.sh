#!/bin/sh
# What an administrator would write in place of setup_skeleton(): the same site, in an empty
# directory that exists.
#   deploy_skel.sh SKELETON HOST DOMAIN
set -e
skeleton=$1
host=$2
domain=$3

cp -r -n "$skeleton/." "$host"
grep -rlZ '@domain_name@' "$host" | xargs -0 -r sed -i "s/@domain_name@/$domain/g"
chgrp -R oxacln "$host"
