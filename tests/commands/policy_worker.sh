#!/bin/sh
# A script for the policy engine that does what its options say:
#   keep DIR            copies its batch to DIR/<pid>
#   node DIR            copies its batch to DIR/<host name>.<pid>
#   append DIR LIST REC like keep, and appends REC to LIST
#   busy FILE SECONDS   works for a while; FILE gets "<working now> <most at a time> <sum>"
#   shell COMMAND       runs COMMAND with the shell and ends with its status
#   leave FILE SECONDS  ends by SIGKILL and leaves a process that writes FILE after a while
#   hold DIR            leaves DIR/<pid> and waits to be killed
[ "$1" = TEST ] && exit 0
[ "$1" = LIST ] && [ -s "$2" ] || exit 98
batch=$2 mode=$3 first=$4

count() {
  {
    flock 9
    read -r now most sum <"$first" || now=0 most=0 sum=0
    now=$((now + $1))
    [ "$now" -le "$most" ] || most=$now
    [ "$1" -lt 0 ] || sum=$((sum + 1))
    echo "$now $most $sum" >"$first"
  } 9>>"$first"
}

set -e
case $mode in
keep) cp "$batch" "$first/$$" ;;
node) cp "$batch" "$first/$(hostname).$$" ;;
append) cp "$batch" "$first/$$" && printf %s "$6" >>"$5" ;;
hold) cp "$batch" "$first/$$" && exec sleep 1000 ;;
shell) sh -c "$first" || exit $? ;;
busy) count 1 && sleep "$5" && count -1 ;;
leave)
  setsid sh -c 'sleep "$2"; printf done >"$1"' leave "$first" "$5" &
  kill -9 $$
  ;;
*) exit 96 ;;
esac
