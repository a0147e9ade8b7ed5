#!/bin/sh
# The real tool ($SOAK_TEMBRIX), but with faults of one kind ($SOAK_FAULT) that the soak has to notice.
# Only removals are broken, so that most operations are as they should be.
stores=/var/www/vhosts/.skel
"$SOAK_TEMBRIX" "$@"
status=$?
[ "$1" = --remove-skel ] || exit $status

# Which removal this is: no two that run at once get the same number.
removal=1
until mkdir "/mnt/removal.$removal" 2>/dev/null; do removal=$((removal + 1)); done

case $SOAK_FAULT in
  stores)
    chmod 0775 "$stores"/*/httpdocs 2>/dev/null
    mkdir -p "$stores/stranger"
    echo changed >/var/www/vhosts/example.com/httpdocs/index.html
    touch /etc/stranger
    ;;
  answers)
    sleep 300 >/dev/null 2>&1 &
    case $((removal % 3)) in
      0) echo 1 ;;
      1) exit 3 ;;
      2) echo something >&2 ;;
    esac
    ;;
  memory)
    # shellcheck disable=SC2034 # it is there to take memory, more at each removal
    much=$(head -c $((removal * 4000000)) /dev/zero | tr '\0' x)
    ;;
esac
exit $status
