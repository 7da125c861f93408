#!/usr/bin/env bash
# Puts together what an installation on Windows holds, of a build: gather.sh BUILD VERSION FOLDER
set -euo pipefail
build=$1
version=$2
folder=$3
root=$(dirname "${BASH_SOURCE[0]}")/../..
mkdir -p "$folder/Talvorn"
cp "$build"/bin/talvorn{-locator,,-sim,-service}.exe "$build/bin/talvorn.dll" "$root/README.md" \
  "$folder"
cp -r "$root"/{docs,packaging} "$folder"

# The PowerShell module, with its version.
mv "$folder"/packaging/windows/Talvorn/*.ps*1* "$folder/Talvorn"
rmdir "$folder/packaging/windows/Talvorn"
sed "s/@VERSION@/$version/" "$folder/Talvorn/Talvorn.psd1.in" >"$folder/Talvorn/Talvorn.psd1"
rm "$folder/Talvorn/Talvorn.psd1.in"

# What programs are built with that use the library.
cmake --install "$build" --component development --prefix "$folder" >/dev/null
rm -r "$folder"/lib/{cmake,pkgconfig}
