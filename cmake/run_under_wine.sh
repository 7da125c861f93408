#!/usr/bin/env bash
# Runs a Windows program under Wine, in a copy of the prefix WINEPREFIX that goes with it:
# run_under_wine.sh PROGRAM [ARGUMENTS...]. Without WINEPREFIX a fresh prefix is made.
# "--prepare" makes the prefix; "--copy FOLDER" copies it, "--in FOLDER PROGRAM ..." becomes
# that program in such a copy, "--drop FOLDER" ends what runs in it and removes it; "--end"
# removes the prefix with its copies.
set -euo pipefail

export WINEDEBUG=${WINEDEBUG:--all,err+virtual}
export WINEARCH=win64
# No browser engine, no .NET, no entries in the menus of the desktop, no display.
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml,winemenubuilder.exe=}
unset DISPLAY WAYLAND_DISPLAY

# first_of NAMES...: the first that is a command.
first_of() {
  local name
  for name; do
    if command -v "$name"; then return; fi
  done
  echo "run_under_wine.sh: no $1 (Debian: wine, wine64)" >&2
  exit 77
}
loader=$(first_of wine64 /usr/lib/wine/wine64 wine)
wine=("$loader")
# Wine's loader stands at a fixed address, and the kernel puts its heap at random behind it.
# In one start of some 2,000 that is where Wine needs a page of its own: the process ends
# with 1 and not a word. Where the heap has a fixed place as well, it is out of the way.
if setarch -R true 2>/dev/null; then wine=(setarch -R "$loader"); fi
server=$(first_of wineserver /usr/lib/wine/wineserver64 /usr/lib/wine/wineserver)

prepare() {
  rm -rf -- "$WINEPREFIX"
  mkdir -p -- "$WINEPREFIX"
  "${wine[@]}" wineboot --init >/dev/null 2>&1 </dev/null
  # The registry is on disk once the server has gone.
  "$server" -w
}

# The files are shared with the prefix, but for the few that Wine writes in place.
copy() {
  mkdir -p -- "$1"
  cp -al -- "$WINEPREFIX/." "$1"
  local file
  for file in "$1"/*.reg "$1"/.update-timestamp; do
    cp -- "$file" "$file.own"
    mv -- "$file.own" "$file"
  done
}

# Debian's Wine keeps the sockets of a prefix's server elsewhere, and leaves them there: in
# the folder that the prefix names, which its copies share.
folder_of_sockets() {
  local name
  name=$(cat -- "$1/wineserver" 2>/dev/null) || return 0
  [[ $name != wine-?????? ]] || echo "/tmp/$name"
}

drop() {
  WINEPREFIX=$1 "$server" -k 2>/dev/null || true
  WINEPREFIX=$1 "$server" -w 2>/dev/null || true
  local sockets
  sockets=$(folder_of_sockets "$1")
  [[ -z $sockets ]] ||
    rm -rf -- "$sockets/server-$(stat -c %D -- "$1")-$(printf %x "$(stat -c %i -- "$1")")"
  rm -rf -- "$1"
}

end() {
  local sockets
  sockets=$(folder_of_sockets "$WINEPREFIX")
  drop "$WINEPREFIX"
  rm -rf -- "$WINEPREFIX".copy-* ${sockets:+"$sockets"}
}

case ${1:-} in
  --prepare) prepare ;;
  --copy) copy "$2" ;;
  --in)
    export WINEPREFIX=$2
    exec "${wine[@]}" "${@:3}"
    ;;
  --drop) drop "$2" ;;
  --end) end ;;
  *)
    trap 'exit 143' TERM INT HUP
    if [[ -z ${WINEPREFIX:-} ]]; then
      WINEPREFIX=$(mktemp -d "${TMPDIR:-/tmp}/talvorn-wine-XXXXXX")
      export WINEPREFIX
      trap end EXIT
      prepare
      "${wine[@]}" "$@"
    else
      own=$(mktemp -d "$WINEPREFIX.copy-XXXXXX")
      trap 'drop "$own"' EXIT
      copy "$own"
      WINEPREFIX=$own "${wine[@]}" "$@"
    fi
    ;;
esac
