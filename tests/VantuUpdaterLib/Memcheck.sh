#!/bin/sh
# Runs the end-to-end tests of the exports (the *_test programs of this folder) under valgrind's
# memcheck, together with the processes they make (forked children and the programs they start).
# Three kinds of program run natively: the tools the tests only read output from (nm,
# readelf), the private message bus (dbus-daemon), none of them ours; and the stand-in updater of
# the test bundles (".../Contents/MacOS/..."), because the library recognises a running updater by
# the path of its executable, which under valgrind would be valgrind's own.
#
# Fails on a failing test and on any memory error or leak (definite, indirect or possible) in any
# of those processes; memory still reachable at exit is not a leak. Nothing is suppressed: no
# report has come from third-party code. Usage: Memcheck.sh BUILD (a build without sanitizers).
# The logs, one per process, are kept in BUILD/memcheck.
set -u

build=${1:?usage: Memcheck.sh BUILD}
here=$(cd "$(dirname "$0")" && pwd)
logs="$build/memcheck"
rm -rf "$logs"
mkdir -p "$logs"

leaks=definite,indirect,possible
native='*/Contents/MacOS/*,*/dbus-daemon,*/dbus-broker*,*/nm,*/readelf,*/cut,*/grep'
failed=0
total_tests=0
total_processes=0
for source in "$here"/*_test.cpp; do
  name=$(basename "$source" .cpp)
  program="$build/tests/$name"
  if [ ! -x "$program" ]; then
    echo "$name: not built ($program)"
    failed=1
    continue
  fi
  start=$(date +%s)
  # No gdbserver: its FIFOs in /tmp outlive the children that end through _exit or a signal.
  valgrind --tool=memcheck --vgdb=no --error-exitcode=99 --leak-check=full \
    --show-leak-kinds="$leaks" --errors-for-leak-kinds="$leaks" \
    --trace-children=yes --trace-children-skip="$native" \
    --log-file="$logs/$name.%p.log" \
    "$program" >"$logs/$name.out" 2>&1
  status=$?
  seconds=$(($(date +%s) - start))
  tests=$(sed -n 's/^\[  PASSED  \] \([0-9]*\) tests\{0,1\}\..*/\1/p' "$logs/$name.out")
  processes=$(ls "$logs" | grep -c "^$name\.[0-9]*\.log$")
  # A process with an error ends with a non-zero error summary, whether or not its exit status
  # reached the test (a child may be waited for by a test that ignores its status).
  bad=$(grep -l 'ERROR SUMMARY: [1-9]' "$logs/$name".*.log 2>/dev/null | wc -l)
  total_tests=$((total_tests + ${tests:-0}))
  total_processes=$((total_processes + processes))
  if [ "$status" -eq 0 ] && [ "$bad" -eq 0 ]; then
    echo "$name: ${tests:-0} tests passed; $processes processes, no error or leak; $seconds s"
  else
    echo "$name: FAILED (exit $status, $bad processes with errors), ${seconds} s; logs in $logs"
    grep -h -A3 -E '^\[  FAILED  \]|Failure$' "$logs/$name.out" | head -n 20
    for log in $(grep -l 'ERROR SUMMARY: [1-9]' "$logs/$name".*.log 2>/dev/null | head -n 3); do
      echo "--- $log"
      sed -n '/^==[0-9]*== *$/,$p' "$log" | head -n 40
    done
    failed=1
  fi
done
echo "memcheck: $total_tests tests in $total_processes processes"
exit $failed
