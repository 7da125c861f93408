#!/usr/bin/env bash
# Runs a Windows program under Wine: run_under_wine.sh PROGRAM [ARGUMENTS...]. The
# prefix is WINEPREFIX; without one, each call gets a fresh one that goes with it.
# "run_under_wine.sh --prepare" only makes the prefix, "--end" ends what runs in it.
set -euo pipefail

export WINEDEBUG=${WINEDEBUG:--all}
export WINEARCH=win64
# No browser engine, no .NET, no entries in the menus of the desktop, no display.
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml,winemenubuilder.exe=}
unset DISPLAY WAYLAND_DISPLAY

wine=
for candidate in wine64 /usr/lib/wine/wine64 wine; do
  if wine=$(command -v "$candidate"); then break; fi
done
if [[ -z $wine ]]; then
  echo "run_under_wine.sh: no wine (Debian: wine, wine64)" >&2
  exit 77
fi
server=
for candidate in wineserver /usr/lib/wine/wineserver64 /usr/lib/wine/wineserver; do
  if server=$(command -v "$candidate"); then break; fi
done

own_prefix=
if [[ -z ${WINEPREFIX:-} ]]; then
  own_prefix=$(mktemp -d "${TMPDIR:-/tmp}/talvorn-wine-XXXXXX")
  export WINEPREFIX=$own_prefix
fi

end() {
  "$server" -k 2>/dev/null || true
  "$server" -w 2>/dev/null || true
}
prepare() {
  [[ -e $WINEPREFIX/system.reg ]] && return
  mkdir -p "$WINEPREFIX"
  "$wine" wineboot --init >/dev/null 2>&1 </dev/null
  # The registry is on disk once the server has gone.
  "$server" -w
}

case ${1:-} in
  --prepare)
    end
    rm -rf -- "$WINEPREFIX"
    prepare
    exit 0
    ;;
  --end)
    end
    rm -rf -- "$WINEPREFIX"
    exit 0
    ;;
esac

prepare
if [[ -z $own_prefix ]]; then exec "$wine" "$@"; fi
status=0
"$wine" "$@" || status=$?
end
rm -rf -- "$own_prefix"
exit "$status"
