#!/bin/sh
# Answers one fixed text, to show that the web server runs programs of this directory. It tells
# nothing of the server. It runs only once you have made it executable: chmod 755 test.cgi
cat <<'END'
Content-Type: text/plain; charset=utf-8

CGI programs work on @domain_name@.
END
