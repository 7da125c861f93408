#!/usr/bin/env bash
# make_winget.sh MSI URL FOLDER: the manifest by which winget installs MSI from URL, into FOLDER.
set -euo pipefail
(($# == 3)) || { echo "usage: make_winget.sh MSI URL FOLDER" >&2; exit 2; }
msi=$1 url=$2 folder=$3

# property NAME: what the installer says of itself.
property() {
  local value
  value=$(msiinfo export "$msi" Property | tr -d '\r' | sed -n "s/^$1\t//p")
  [[ $value ]] || { echo "make_winget.sh: $msi has no $1" >&2; return 1; }
  printf '%s' "$value"
}

# filled TEXT: as sed's replacement has to name it.
filled() { printf '%s' "$1" | sed 's/[\\&|]/\\&/g'; }

version=$(property ProductVersion)
product=$(property ProductCode)
name=$(property ProductName)
publisher=$(property Manufacturer)
sha256=$(sha256sum <"$msi" | cut -d ' ' -f 1)

mkdir -p "$folder"
for template in "$(dirname "$0")"/winget/*.in; do
  sed -e "s|@VERSION@|$(filled "$version")|" -e "s|@PRODUCT_CODE@|$(filled "$product")|" \
    -e "s|@NAME@|$(filled "$name")|" -e "s|@PUBLISHER@|$(filled "$publisher")|" \
    -e "s|@URL@|$(filled "$url")|" -e "s|@SHA256@|${sha256^^}|" \
    "$template" >"$folder/$(basename "$template" .in)"
done
