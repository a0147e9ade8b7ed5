#!/bin/sh
# Runs a command under valgrind's memcheck, in the private mounts, and ends it after SECONDS. Its
# children are looked at too, and the programs that they become where they lie in this tree. Prints
# one line and fails when the command fails or any of the processes shows an error. DIRECTORY gets
# "errors", of all processes, and "output".
#   run.sh DIRECTORY SECONDS COMMAND [ARGUMENT...]
set -eu
here=$(cd "$(dirname "$0")" && pwd)
directory=$1 seconds=$2
shift 2
rm -rf "$directory"
mkdir -p "$directory"

# A pipe, for a process that becomes another program would empty a file that it had written to. Those
# that have given up root open it too.
mkfifo -m 0666 "$directory/pipe"
exec 3<>"$directory/pipe"
cat "$directory/pipe" >"$directory/errors" 3>&- &

# Some programs replace the allocator, to make it fail, and call the one that valgrind knows.
# The C library's own clean-up would write out what a child that ends with _exit() has in its buffers.
# exec_probe holds no code of the library, and tells what it was started with: valgrind would show.
status=0
"$here/../../scripts/private-mounts" timeout -k 5 "$seconds" \
  valgrind --quiet --vgdb=no --num-callers=25 --log-file="$directory/pipe" \
  --leak-check=full --show-leak-kinds=definite --errors-for-leak-kinds=definite \
  --run-libc-freeres=no --run-cxx-freeres=no --soname-synonyms=somalloc=nouserintercepts \
  --trace-children=yes --trace-children-skip='/usr/*,/bin/*,/sbin/*,/tmp/*,/mnt/*,*/scripts/*,*/exec_probe' \
  --suppressions="$here/memcheck.supp" \
  "$@" >"$directory/output" 2>&1 3>&- </dev/null || status=$?
exec 3>&-
wait
rm "$directory/pipe"

# With --quiet there are only errors, and warnings of calls that look odd, which tests make on purpose.
shown=$(sed -nE '/^==[0-9]+== (Warning: |   )/!s/^==([0-9]+)== ..*/\1/p' "$directory/errors" |
  sort -u | wc -l)
case $status in
  124 | 137) echo "$directory: not done within $seconds seconds" ;;
  *) [ "$status" -eq 0 ] && [ "$shown" -eq 0 ] && exit 0
    echo "$directory: status $status, processes with errors: $shown" ;;
esac
exit 1
