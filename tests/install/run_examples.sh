#!/bin/sh
# Runs the built examples on a site of their own and compares what comes of it. Needs the private
# mounts.
#   run_examples.sh DIRECTORY   that holds site and site_report
set -eu
bin=$1
root=/var/www/vhosts
host=$root/example.com
cd /mnt

fail() {
  echo "examples: $1" >&2
  exit 1
}
# expect NAME: standard input is what the file "got" must hold.
expect() { diff -u - got >&2 || fail "$1"; }
tree() { (cd "$1" && find . -mindepth 1 -printf '%m %g %y %P\n' | LC_ALL=C sort -k4); }

{ cat /etc/group; echo 'oxacln:x:6321:'; } >group
mount --bind group /etc/group

mkdir -p $root/.skel/0/httpdocs/css $root/.skel/0/cgi-bin $root/.skel/12/httpdocs
umask 022
echo '<title>@domain_name@</title>' >$root/.skel/0/httpdocs/index.html
echo 'body {}' >$root/.skel/0/httpdocs/css/site.css
echo 'twelve' >$root/.skel/12/httpdocs/index.html
chmod 0640 $root/.skel/0/httpdocs/css/site.css
ln -s index.html $root/.skel/0/httpdocs/link

"$bin/site" deploy $host 2>got || fail "the deployment failed"
expect "messages of the deployment" <<END
widoctl:InstallSkeleton(): $host/httpdocs/link not a file or directory, skipping
END
tree $host >got
expect "the deployed site" <<END
755 oxacln d cgi-bin
755 oxacln d httpdocs
755 oxacln d httpdocs/css
640 oxacln f httpdocs/css/site.css
644 oxacln f httpdocs/index.html
END
cat $host/httpdocs/index.html >got
expect "the name in the page" <<END
<title>example.com</title>
END

echo mine >$host/httpdocs/css/site.css
rm $host/httpdocs/index.html
"$bin/site" deploy $host 12 2>got || fail "the second deployment failed"
expect "messages of the second deployment" <<END
widoctl:InstallSkeleton(): $host/cgi-bin already exists, not restoring
END
cat $host/httpdocs/css/site.css $host/httpdocs/index.html >got
expect "the second deployment restores what is missing" <<END
mine
twelve
END

mkdir $host/subdomains
"$bin/site" deploy-sub example.com shop 2>/dev/null || fail "the deployment into a sub-domain failed"
cat $host/subdomains/shop/httpdocs/index.html >got
expect "the name in a sub-domain's page" <<END
<title>example.com</title>
END

mkdir -p $host/httpdocs/blog/lib
touch $host/httpdocs/blog/index.php $host/httpdocs/blog/lib/a.php
"$bin/site" remove $host blog 2>got <<END || fail "the removal failed"
<INSTANCE-DATA><SECTION PREFIX="htdocs">
  <FILE>index.php</FILE><FILE>lib</FILE><FILE>lib/a.php</FILE>
</SECTION></INSTANCE-DATA>
END
expect "messages of the removal" </dev/null
[ ! -e $host/httpdocs/blog ] || fail "the application is still there"

echo 'by hand' >settings
{ echo 'before'; "$bin/site" banner; } >generated
for file in settings generated missing; do
  "$bin/site" protect $file >got 2>&1 || fail "protect $file failed"
  expect "protect $file" </dev/null
done
cat settings.saved_by_oxa >got
expect "the protected copy" <<END
by hand
END
[ ! -e generated.saved_by_oxa ] || fail "a generated file has a copy"

mkdir $host/private
touch $host/private/notes
"$bin/site" clean $host >got 2>&1 || fail "the cleaning failed"
expect "messages of the cleaning" </dev/null
tree $host >got
expect "the site after the cleaning" <<END
755 oxacln d cgi-bin
755 oxacln d httpdocs
755 root d private
755 root d subdomains
755 root d subdomains/shop
755 oxacln d subdomains/shop/cgi-bin
755 oxacln d subdomains/shop/httpdocs
755 oxacln d subdomains/shop/httpdocs/css
640 oxacln f subdomains/shop/httpdocs/css/site.css
644 oxacln f subdomains/shop/httpdocs/index.html
END

status=0
"$bin/site" deploy /srv/www/example.com >got 2>&1 || status=$?
expect "the text of a failure" <<END
Unexpected error: Virtual host /srv/www/example.com is not a subdirectory of $root
END
[ $status -eq 1 ] || fail "a failure ends with status $status"

"$bin/site_report" $root/example.net 12 >got 2>&1 || fail "site_report failed"
expect "what site_report says" <<END
example.net (site)
httpdocs
httpdocs/index.html: ASCII text
emptied
httpdocs
END
status=0
"$bin/site_report" $root/example.net/httpdocs 12 >got 2>&1 || status=$?
expect "the text of site_report's failure" <<END
site_report: Directory $root/example.net/httpdocs does not represent a virtual host
END
[ $status -eq 1 ] || fail "site_report's failure ends with status $status"
