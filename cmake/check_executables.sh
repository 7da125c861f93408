#!/usr/bin/env bash
# What holds for every Windows executable and library that is given away: check_executables.sh
# OBJDUMP VERSION FILES...
set -euo pipefail
readonly largest=$((2 << 20))
readonly of_the_system='advapi32|iphlpapi|kernel32|msvcrt|mswsock|ole32|oleaut32|rpcrt4|user32|ws2_32'
objdump=$1
version=$2
shift 2
status=0
for file; do
  size=$(stat -c %s "$file")
  headers=$("$objdump" -p "$file")
  imports=$(sed -n 's/^[[:space:]]*DLL Name: \(.*\)\.dll$/\1/Ip' <<<"$headers" | tr '[:upper:]' '[:lower:]' | sort -u)
  echo "$(basename "$file"): $size bytes, imports $(tr '\n' ' ' <<<"$imports")"
  if ((size >= largest)); then
    echo "  too large: the limit is $largest bytes" && status=1
  fi
  if strange=$(grep -Evx "$of_the_system" <<<"$imports"); then
    echo "  needs what Windows may not have: $strange" && status=1
  fi
  subsystem='Windows CUI'
  [[ $file == *talvorn-locator.exe ]] && subsystem='Windows GUI'
  if [[ $file != *.dll ]] && ! grep -q "^Subsystem.*($subsystem)" <<<"$headers"; then
    echo "  is not of the subsystem $subsystem" && status=1
  fi
  for protection in HIGH_ENTROPY_VA DYNAMIC_BASE NX_COMPAT 'Base Relocation Directory'; do
    grep -q "$protection" <<<"$headers" || { echo "  lacks $protection" && status=1; }
  done
  if ! grep -aq 'stack smashing detected' "$file"; then
    echo "  does not look after its stack" && status=1
  fi
  if [[ $(sed -nE 's/^M(aj|in)orSubsystemVersion[[:space:]]*//p' <<<"$headers" | xargs) != '6 1' ]]; then
    echo "  is not for Windows 7 and later" && status=1
  fi
  if [[ $("${objdump%objdump}strings" -el "$file" | grep -A 1 -x ProductVersion | tail -n 1) != "$version" ]]; then
    echo "  does not tell the version $version" && status=1
  fi
  if [[ $file != *.dll ]] && ! grep -qE 'level="asInvoker"' <(grep -a asInvoker "$file"); then
    echo "  has no manifest" && status=1
  fi
done
exit "$status"
