#!/usr/bin/env bash
# Makes the installer of a folder that holds the Windows programs and their documents:
# build_msi.sh FOLDER VERSION MSI. Needs wixl and msibuild (Debian: wixl, msitools).
set -euo pipefail

folder=$(realpath "$1")
version=$2
msi=$(realpath "$3")
here=$(realpath "$(dirname "${BASH_SOURCE[0]}")")
made=$(mktemp -d "${TMPDIR:-/tmp}/talvorn-msi.XXXXXX")
trap 'rm -rf "$made"' EXIT

# Tells that two installers are of the same product, for ever.
readonly upgrade=D1A072B7-BF06-47C0-BEF8-6327B70783A6

# The event log's sources as the installer writes them, from the file that is imported by hand.
event_sources() {
  echo '<Include>'
  tr -d '\r' <"$folder/packaging/event-sources.reg" | sed -nE '
    s/^\[HKEY_LOCAL_MACHINE\\(.*)\]$/\1/; T value; h; b
    :value
    s/^"(.*)"=dword:0*(.+)$/Name="\1" Type="integer" Value="\2"/; t write
    s/^"(.*)"="C:\\\\Program Files\\\\TALVORN\\\\(.*)"$/Name="\1" Type="string" Value="[Folder]\2"/
    T
    :write
    G; s/^(.*)\n(.*)$/<RegistryValue Root="HKLM" Key="\2" \1\/>/p'
  echo '</Include>'
}

# The files of a folder, for one component.
files() {
  local file keyPath=' KeyPath="yes"'
  echo '<Include>'
  for file in "$folder/$1"/*; do
    [[ -f $file ]] || continue
    file=${file##*/}
    printf '<File Id="%s" Name="%s" Source="%s"%s/>\n' "${file//-/_}" "$file" "$1/$file" "$keyPath"
    keyPath=
  done
  echo '</Include>'
}

event_sources >"$made/event-sources.wxi"
files docs >"$made/docs.wxi"
files docs/schema >"$made/schema.wxi"
files Talvorn >"$made/Talvorn.wxi"
files include/talvorn >"$made/include.wxi"
files lib >"$made/lib.wxi"
rm -f "$msi"
# It takes files by paths within the current folder only.
(cd "$folder" &&
  wixl -a x64 -I "$made" -D Version="$version" -D Upgrade="$upgrade" \
    -o "$msi" "$here/talvorn.wxs")

statements=()
# What replaces any older version, and another build of the same one (768: both inclusive).
statements+=(-q "INSERT INTO \`Upgrade\` (\`UpgradeCode\`, \`VersionMin\`, \`VersionMax\`, \`Attributes\`, \`ActionProperty\`) VALUES ('{$upgrade}', '0.0.0', '$version', 768, 'OLDER')")
while read -r statement; do statements+=(-q "$statement"); done < <(grep '^[A-Z]' "$here/tables.sql")
# A program that is replaced or repaired is told from another one by its version.
for program in {Locator,Tool,Simulator,Service}.exe Library.dll; do
  statements+=(-q "UPDATE \`File\` SET \`Version\`='$version.0', \`Language\`='1033' WHERE \`File\`='$program'")
done
msibuild "$msi" "${statements[@]}"
