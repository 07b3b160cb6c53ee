#!/usr/bin/env bash
# Runs a Windows program under wine, as the tests of the Windows build do:
#   wine-run.sh PREFIX PROGRAM.exe ARGS...
# PREFIX is a wine prefix of the build's own, made on first use (one caller at a time);
# no display, no debug output, no Mono or Gecko installers. The program's exit status is
# this script's.
set -euo pipefail

prefix=$1
shift
export WINEPREFIX=$prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" DISPLAY=
unset WAYLAND_DISPLAY
# The prefix is ready once its marker is there: wineboot writes system.reg early, and a
# program started before wineboot has finished fails.
ready=$prefix.ready
if [[ ! -f $ready ]]; then
  mkdir -p "$(dirname "$prefix")"
  (
    flock 9
    if [[ ! -f $ready ]]; then
      wineboot --init >/dev/null 2>&1 </dev/null
      wineserver --wait
      touch "$ready"
    fi
  ) 9>"$prefix.lock"
fi
exec wine "$@"
