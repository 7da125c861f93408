#!/usr/bin/env bash
# Signs Windows programs and installers in place: sign.sh FILES... Needs osslsigncode.
#
#   TALVORN_SIGN_CERTIFICATE    certificate and key, PKCS#12
#   TALVORN_SIGN_PASSWORD_FILE  the file that holds its password; without it, there is none
#   TALVORN_SIGN_TIMESTAMP      address of a time-stamping service; without it, no time stamp
set -euo pipefail

options=(-pkcs12 "$TALVORN_SIGN_CERTIFICATE" -h sha256 -n "TALVORN locator")
if [[ -n ${TALVORN_SIGN_PASSWORD_FILE-} ]]; then
  options+=(-readpass "$TALVORN_SIGN_PASSWORD_FILE")
else
  options+=(-pass '')
fi
[[ -z ${TALVORN_SIGN_TIMESTAMP-} ]] || options+=(-ts "$TALVORN_SIGN_TIMESTAMP")
for file; do
  osslsigncode sign "${options[@]}" -in "$file" -out "$file.signed" >/dev/null
  mv -- "$file.signed" "$file"
done
