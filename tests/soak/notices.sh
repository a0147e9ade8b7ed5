#!/bin/sh
# The soak of a tool with faults (broken_tool.sh) has to fail, and to say what it found.
#   notices.sh FAULT SOAK TEMBRIX SKELETON MARIADB_TEMPLATE WORDS...
set -eu
export SOAK_FAULT="$1" SOAK_TEMBRIX="$3"
here=$(cd "$(dirname "$0")" && pwd)
status=0
said=$("$here/run.sh" "$2" "$here/broken_tool.sh" "$4" "$5" 60 20 2>&1) || status=$?
shift 5
echo "$said"
if [ "$status" -ne 1 ]; then
  echo "notices: the soak ended with status $status, not 1" >&2
  exit 1
fi
for words; do
  echo "$said" | grep -qF -- "$words" || { echo "notices: nothing was said of: $words" >&2; exit 1; }
done
